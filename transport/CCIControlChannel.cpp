#include "transport/CCIControlChannel.h"

#include "base/BaseException.h"
#include "support/Settings.h"
#include "transport/EndpointHandler.h"
#include "transport/LibCSILibrary.h"
#include "transport/Transfer.h"
#include "support/Allocation.h"

#include <boost/format.hpp>

#include <algorithm>
#include <new>
#include <vector>

namespace QEL { namespace TransportLayer {

namespace {

using LibCSI::Library;

constexpr std::uint32_t MaxPacket = 0x1000F;

// Bits of `cachedFlags`.
enum Cached : std::uint64_t {
    CachedCapability = 1u << 0,
    CachedStreamChannels = 1u << 1,
    CachedLanes = 1u << 2,
    CachedSirmAddress = 1u << 3,
    CachedSirmLength = 1u << 4,
    CachedSpeed = 1u << 5,
};

// SBRM offsets.
constexpr std::uint64_t SbrmCapability = 4;
constexpr std::uint64_t SbrmStreamChannels = 12;
constexpr std::uint64_t SbrmLaneCounts = 16;
constexpr std::uint64_t SbrmCurrentLaneCount = 20;
constexpr std::uint64_t SbrmClockFrequency = 32;
constexpr std::uint64_t SbrmSirmAddress = 36;
constexpr std::uint64_t SbrmSirmLength = 44;
constexpr std::uint64_t SbrmDphyReset = 48;

[[noreturn]] void Fail(const std::string& text, GC_ERROR code = GC_ERR_ERROR) { throw Base::Exception(text, code); }

void Log(const std::string& text) { Library::MediaLog(text); }

// Waits for a transfer until the deadline, then aborts the handler's
// transfers and waits for the end. True when it was aborted.
bool AwaitTransfer(Transfer& transfer, LibCSI::EndpointHandler& handler, System::TimePoint deadline)
{
    if (transfer.WaitUntil(deadline))
        return false;
    handler.AbortTransfers();
    transfer.Wait();
    return true;
}

System::TimePoint DeadlineAfter(std::uint64_t milliseconds)
{
    return System::Clock::now() + std::chrono::milliseconds(std::min<std::uint64_t>(milliseconds, 0xFFFFFFFFu));
}

}

std::shared_ptr<ControlChannel> ControlChannel::Create(const std::shared_ptr<LibCSI::EndpointHandler>& inHandler,
                                                       const std::shared_ptr<LibCSI::EndpointHandler>& outHandler,
                                                       const std::shared_ptr<const Settings>& settings,
                                                       std::uint32_t extraReceiveTimeout, std::uint32_t sendTimeout,
                                                       bool readOnly)
{
    auto channel = Tools::MakeShared<ControlChannel>("Could not allocate control channel.", readOnly);
    channel->Init(inHandler, outHandler, settings, extraReceiveTimeout, sendTimeout);
    return channel;
}

ControlChannel::ControlChannel(bool readOnly) : Base::GenCP::ControlChannel(readOnly) {}

ControlChannel::~ControlChannel()
{
    // The heartbeat, if anyone started it, must end while packets can still move.
    try {
        if (!IsHeartbeatStopped())
            StopHeartbeat();
    } catch (...) {
    }
}

void ControlChannel::Init(const std::shared_ptr<LibCSI::EndpointHandler>& in,
                          const std::shared_ptr<LibCSI::EndpointHandler>& out,
                          const std::shared_ptr<const Settings>& settings, std::uint32_t extraReceive,
                          std::uint32_t send)
{
    Log("ControlChannel::Init");
    if (!in)
        Fail("No input endpoint passed.", GC_ERR_INVALID_PARAMETER);
    if (!out)
        Fail("No output endpoint passed.", GC_ERR_INVALID_PARAMETER);
    if (in->GetDirection() != 0)
        Fail("Input endpoint has an invalid transfer direction.", GC_ERR_INVALID_PARAMETER);
    if (out->GetDirection() != 1)
        Fail("Output endpoint has an invalid transfer direction.", GC_ERR_INVALID_PARAMETER);
    if (in->GetMaxTransferCount() < 1 || out->GetMaxTransferCount() < 1)
        Fail("Invalid transfer count found.");
    inHandler = in;
    outHandler = out;
    extraReceiveTimeout = extraReceive;
    sendTimeout = send;
    Flush();

    std::string version;
    Log(out->GetApiVersion(version) ? (boost::format("API version %1%") % version).str()
                                    : "Error while retrieving API version.");
    Log(out->GetDriverVersion(version) ? (boost::format("Driver version %1%") % version).str()
                                       : "Error while retrieving driver version.");

    if (out->GetMaxPacketSize() < 16)
        Fail("Maximum output packet size too small for GenCP over CCI packets.");
    if (in->GetMaxPacketSize() < 16)
        Fail("Maximum input packet size too small for GenCP over CCI packets.");
    maxCommandPacket = std::min(out->GetMaxPacketSize(), MaxPacket);
    maxAcknowledgePacket = std::min(in->GetMaxPacketSize(), MaxPacket);
    const std::uint64_t alignment = in->GetMaxPacketSize();
    const std::uint64_t rounded = (maxAcknowledgePacket + alignment - 1) / alignment * alignment;
    if (rounded > 0xFFFFFFFFu)
        Fail("Rounding up with the given alignment would lead to an overflow.");
    receiveBufferSize = static_cast<std::uint32_t>(rounded);

    // The first exchange with the camera: response time, capability and SBRM address come with it.
    if (GetStreamChannelCount() != 0) {
        ApplyLinkSettings(settings);
        DumpAndPatchAsic(settings);
    }

    linkBytesPerSecond = 0x3000;
    if (!BytesPerSecondOfSpeedCode(outHandler->GetLinkSpeed(), linkBytesPerSecond))
        Fail("Unknown link speed speed found.");
    Log((boost::format("ControlChannel::Init: Effective bytes per second: %1%") % linkBytesPerSecond).str());
}

void ControlChannel::ApplyLinkSettings(const std::shared_ptr<const Settings>& settings)
{
    std::uint8_t laneCount = 0;
    std::uint32_t clock = 0;
    outHandler->GetCSIConfig(laneCount, clock);
    if (!(GetSBRMCapability() & 0x4)) {
        Log("ControlChannel::Init: Camera does NOT support DPHY reset. Ignoring lane/clock settings from XML file.");
    } else {
        Log("ControlChannel::Init: Camera supports DPHY reset.");
        const std::set<std::uint8_t> hostLanes = outHandler->GetSupportedLaneCounts();
        const std::set<std::uint8_t> deviceLanes = GetDeviceLaneCounts();
        const PortSettings* port = nullptr;
        if (settings) {
            auto it = settings->GetPorts().find(outHandler->GetPortID());
            if (it != settings->GetPorts().end() && it->second.HasLaneCount() && it->second.HasClockFrequency())
                port = &it->second;
        }
        if (port) {
            const std::uint8_t wantedLanes = port->GetLaneCount();
            const std::uint32_t wantedClock = port->GetClockFrequency();
            Log((boost::format("ControlChannel::Init: Settings file lane count : %1%") % unsigned{wantedLanes}).str());
            Log((boost::format("ControlChannel::Init: Settings file CSI clock frequency : %1%MHz") %
                 (wantedClock / 1000000))
                    .str());
            if ((wantedLanes != laneCount || wantedClock != clock) && hostLanes.count(wantedLanes) &&
                deviceLanes.count(wantedLanes)) {
                const auto ranges = outHandler->GetClockRanges();
                auto range = ranges.find(wantedLanes);
                if (range != ranges.end() && wantedClock >= range->second.first && wantedClock <= range->second.second) {
                    const std::uint64_t sbrm = GetSBRMAddress();
                    WriteMemory(sbrm + SbrmCurrentLaneCount, &wantedLanes, 1);
                    WriteRegister32(sbrm + SbrmClockFrequency, wantedClock);
                    clock = ReadRegister32(sbrm + SbrmClockFrequency);
                    laneCount = wantedLanes;
                    Log((boost::format("ControlChannel::Init: Get device CSI-2 clock frequency: %1%") % clock).str());
                    const std::uint8_t reset = 1, release = 0;
                    WriteMemory(sbrm + SbrmDphyReset, &reset, 1);
                    outHandler->SetCSIConfig(laneCount, clock);
                    WriteMemory(sbrm + SbrmDphyReset, &release, 1);
                }
            }
        }
    }
    Log((boost::format("ControlChannel::Init: Current lane count : %1%") % unsigned{laneCount}).str());
    Log((boost::format("ControlChannel::Init: Current CSI clock frequency : %1%Hz") % clock).str());
}

void ControlChannel::DumpAndPatchAsic(const std::shared_ptr<const Settings>& settings)
{
    static const std::pair<std::uint32_t, const char*> dump[] = {
        {0x50000400, "nFrameStartValue"}, {0x50000404, "nFrameDoneValue"}, {0x50000408, "nImageDoneValue"},
        {0x5000040C, "nChunkPauseValue"}, {0x60022064, "nVSYNC"},          {0x60022068, "nVBP"},
        {0x6002206C, "nVFP"},             {0x60022070, "nHSYNC"},          {0x60022074, "nHBP"},
        {0x60022078, "nHFP"}};
    // The log names them in this order.
    static const int logOrder[] = {0, 1, 2, 3, 4, 6, 5, 7, 9, 8};
    try {
        std::uint32_t values[10];
        for (int i = 0; i < 10; ++i)
            values[i] = ReadAsicRegister(dump[i].first);
        Log("ControlChannel::Init: ASIC register dump:");
        for (int i : logOrder)
            Log((boost::format("ControlChannel::Init: %1%=%2%") % dump[i].second % values[i]).str());
        if (settings && !settings->GetRegSettings().empty()) {
            Log("ControlChannel::Init: Patch ASIC registers...");
            for (const RegSetting& reg : settings->GetRegSettings()) {
                Log((boost::format(" ControlChannel::Init: %1%(%2$#x)=%3%") % reg.name % reg.address % reg.value).str());
                WriteAsicRegister(reg.address, static_cast<std::uint32_t>(reg.value));
                Log((boost::format("  ControlChannel::Init: Read back %1%") % ReadAsicRegister(reg.address)).str());
            }
        }
    } catch (...) {
        Log("INFO: ASIC register access not available");
    }
}

std::uint32_t ControlChannel::ReadAsicRegister(std::uint32_t address)
{
    WriteRegister32(AsicAddressRegister, address);
    return ReadRegister32(AsicDataRegister);
}

void ControlChannel::WriteAsicRegister(std::uint32_t address, std::uint32_t value)
{
    WriteRegister32(AsicAddressRegister, address);
    WriteRegister32(AsicDataRegister, value);
}

// ---- Packets ----

std::size_t ControlChannel::GetMaxCommandPayload()
{
    if (maxCommandPacket < 16)
        Fail("Invalid packet size passed.");
    return maxCommandPacket - 16;
}

std::size_t ControlChannel::GetMaxAcknowledgePayload()
{
    if (maxAcknowledgePacket < 16)
        Fail("Invalid packet size passed.");
    return maxAcknowledgePacket - 16;
}

std::shared_ptr<Base::GenCP::Packet> ControlChannel::CreatePacket(std::size_t payloadSize)
{
    return Tools::MakeShared<Packet>("Could not allocate packet.", payloadSize);
}

std::uint32_t ControlChannel::TransferTime(std::size_t bytes) const
{
    const std::uint64_t ms = (std::uint64_t{bytes} * 1000 + linkBytesPerSecond - 1) / linkBytesPerSecond;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(ms, 0xFFFFFFFFu));
}

void ControlChannel::SendPacket(const std::shared_ptr<Base::GenCP::Packet>& generic)
{
    if (!generic)
        Fail("No packet passed.", GC_ERR_INVALID_PARAMETER);
    auto packet = std::dynamic_pointer_cast<Packet>(generic);
    if (!packet)
        Fail("Incompatible packet passed.", GC_ERR_INVALID_PARAMETER);
    const std::size_t size = packet->GetBytes().size();
    if (size > maxCommandPacket)
        Fail("Packet too large to be sent.", GC_ERR_INVALID_PARAMETER);
    if (size == 0)
        Fail("Could not access packet data.", GC_ERR_INVALID_PARAMETER);
    packet->Seal();
    Transfer transfer(outHandler, packet->GetData(), size);
    const bool aborted = AwaitTransfer(transfer, *outHandler, DeadlineAfter(std::uint64_t{sendTimeout} + TransferTime(size)));
    const TransferResult result = transfer.GetResult();
    if (result == TransferAborted && aborted)
        Fail("Timeout while sending packet.", GC_ERR_TIMEOUT);
    if (result != TransferSuccess)
        Fail((boost::format("Could not send packet (Transfer result: %1%).") % result).str());
    if (static_cast<std::size_t>(transfer.GetTransferred()) < size)
        Fail((boost::format("Invalid amount of data sent (Packet size: %1% Sent: %2%).") % size %
              transfer.GetTransferred())
                 .str());
}

std::shared_ptr<Base::GenCP::Packet> ControlChannel::ReceivePacket(std::uint32_t timeoutMs, std::size_t expectedBytes)
{
    const auto deadline =
        DeadlineAfter(std::uint64_t{timeoutMs} + extraReceiveTimeout + TransferTime(expectedBytes));
    if (receiveBufferSize == 0)
        Fail("Invalid amount of data received for packet.");
    std::vector<std::uint8_t> buffer(receiveBufferSize);
    const std::size_t piece = inHandler->GetMaxTransferSize();
    std::size_t total = 0;
    while (total < buffer.size()) {
        const std::size_t asked = std::min(piece, buffer.size() - total);
        Transfer transfer(inHandler, buffer.data() + total, asked);
        const bool aborted = AwaitTransfer(transfer, *inHandler, deadline);
        const TransferResult result = transfer.GetResult();
        if (result == TransferAborted && aborted)
            return nullptr;
        if (result != TransferSuccess)
            Fail((boost::format("Could not receive packet (Transfer result: %1%).") % result).str());
        const auto got = static_cast<std::size_t>(transfer.GetTransferred());
        if (got > asked)
            Fail("Invalid size transferred received.");
        total += got;
        if (total > maxAcknowledgePacket)
            Fail("Maximum device acknowledge transfer size exceeded.");
        if (got < piece)
            break;
    }
    if (total < 16 || total - 16 > 0xFFFF)
        Fail("Invalid amount of data received for packet.");
    auto packet = Tools::MakeShared<Packet>("Could not allocate new packet.", buffer.data(), total);
    if (!packet->HasValidCrc())
        Fail("Received data didn't pass the CRC32 check.");
    return packet;
}

void ControlChannel::Flush()
{
    for (const auto& handler : {inHandler, outHandler})
        if (handler)
            handler->ResetPipe();
    for (const auto& handler : {inHandler, outHandler})
        if (handler)
            handler->ClearPipe();
}

Base::GenCP::ManifestEntry ControlChannel::GetManifestEntry(std::uint64_t index)
{
    Base::GenCP::ManifestEntry entry = Base::GenCP::ControlChannel::GetManifestEntry(index);
    if (!entry.sha1.empty() && entry.sha1.size() != 20)
        Fail("Invalid SHA1 hash detected.");
    return entry;
}

bool ControlChannel::BytesPerSecondOfSpeedCode(std::uint32_t code, std::uint64_t& bytesPerSecond)
{
    switch (code) {
    case 0: bytesPerSecond = 0x3333; return true;
    case 1: bytesPerSecond = 0xCCCC; return true;
    case 2: bytesPerSecond = 0x20000; return true;
    case 4: bytesPerSecond = 0x6CCCC; return true;
    case 8: bytesPerSecond = 0xA0000; return true;
    default: return false;
    }
}

std::uint64_t ControlChannel::GetCurrentSpeed()
{
    if (!(cachedFlags & CachedSpeed)) {
        if (!BytesPerSecondOfSpeedCode(outHandler->GetLinkSpeed(), currentSpeed))
            Fail("Invalid device speed found.");
        cachedFlags |= CachedSpeed;
    }
    Log((boost::format("ControlChannel::GetCurrentSpeed: Current link speed: %1%") % currentSpeed).str());
    return currentSpeed;
}

// ---- SBRM and SIRM ----

std::uint32_t ControlChannel::CachedSBRM32(std::uint64_t flag, std::uint32_t& cache, std::uint64_t offset)
{
    if (!(cachedFlags & flag)) {
        cache = ReadRegister32(GetSBRMAddress() + offset);
        cachedFlags |= flag;
    }
    return cache;
}

std::uint32_t ControlChannel::GetSBRMCapability() { return CachedSBRM32(CachedCapability, sbrmCapability, SbrmCapability); }

std::uint32_t ControlChannel::GetStreamChannelCount()
{
    return CachedSBRM32(CachedStreamChannels, streamChannelCount, SbrmStreamChannels);
}

std::set<std::uint8_t> ControlChannel::GetDeviceLaneCounts()
{
    if (!(cachedFlags & CachedLanes)) {
        deviceLaneMask = ReadRegister8(GetSBRMAddress() + SbrmLaneCounts) & 0xF;
        if (deviceLaneMask == 0)
            Fail("Invalid device supported CSI-2 lane count detected.");
        cachedFlags |= CachedLanes;
    }
    std::set<std::uint8_t> lanes;
    for (std::uint8_t n = 1; n <= 4; ++n)
        if (deviceLaneMask & (1u << (n - 1)))
            lanes.insert(n);
    return lanes;
}

std::uint8_t ControlChannel::GetCurrentLaneCount() { return ReadRegister8(GetSBRMAddress() + SbrmCurrentLaneCount); }

std::uint32_t ControlChannel::GetClockFrequency() { return ReadRegister32(GetSBRMAddress() + SbrmClockFrequency); }

std::uint64_t ControlChannel::GetSIRMAddress(std::uint32_t streamIndex)
{
    if (!(GetSBRMCapability() & 0x1))
        Fail("No SIRM supported.", GC_ERR_NOT_IMPLEMENTED);
    if (!(cachedFlags & CachedSirmAddress)) {
        sirmAddress = ReadRegister64(GetSBRMAddress() + SbrmSirmAddress);
        cachedFlags |= CachedSirmAddress;
    }
    CachedSBRM32(CachedSirmLength, sirmLength, SbrmSirmLength);
    if (streamIndex >= GetStreamChannelCount())
        Fail("Invalid index passed.");
    return sirmAddress + std::uint64_t{streamIndex} * sirmLength;
}

std::uint64_t ControlChannel::GetEIRMAddress() const { Fail("No EIRM supported."); }

void ControlChannel::EnableEvents(bool) { Fail("Events not supported."); }

void ControlChannel::EnableStream(std::uint32_t streamIndex, bool enable)
{
    const std::uint64_t address = GetSIRMAddress(streamIndex);
    const std::uint8_t current = ReadRegister8(address);
    if (((current & 1) != 0) == enable)
        return;
    WriteRegister32(address, enable ? (current | 1u) : (current & ~1u));
    Log((boost::format("ControlChannel::EnableStream(nIndex=%1%, bEnable=%2%)") % streamIndex % enable).str());
}

void ControlChannel::SetIPURestrictions(std::uint32_t streamIndex, const std::uint32_t (&restrictions)[6])
{
    std::uint8_t bytes[24];
    for (int i = 0; i < 6; ++i)
        for (int b = 0; b < 4; ++b)
            bytes[4 * i + b] = static_cast<std::uint8_t>(restrictions[i] >> (8 * b));
    WriteMemory(GetSIRMAddress(streamIndex) + 56, bytes, sizeof bytes);
}

bool ControlChannel::IsStreamEnabled(std::uint32_t streamIndex)
{
    return (ReadRegister8(GetSIRMAddress(streamIndex)) & 1u) != 0;
}

std::uint32_t ControlChannel::GetMaxLeaderSize(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 4); }
std::uint64_t ControlChannel::GetPayloadSize(std::uint32_t i) { return ReadRegister64(GetSIRMAddress(i) + 8); }
std::uint32_t ControlChannel::GetMaxTrailerSize(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 16); }

std::set<std::uint32_t> ControlChannel::GetDeviceDataIdentifiers(std::uint32_t streamIndex)
{
    std::set<std::uint32_t> identifiers;
    const std::uint64_t address = GetSIRMAddress(streamIndex);
    for (std::uint32_t word = 0; word < 4; ++word) {
        const std::uint64_t bits = ReadRegister64(address + 20 + std::uint64_t{8} * word);
        for (std::uint32_t bit = 0; bit < 64; ++bit)
            if (bits & (std::uint64_t{1} << bit))
                identifiers.insert(64 * word + bit);
    }
    return identifiers;
}

std::uint8_t ControlChannel::GetDataIdentifier(std::uint32_t i) { return ReadRegister8(GetSIRMAddress(i) + 52); }

void ControlChannel::SetDataIdentifier(std::uint32_t i, std::uint8_t identifier)
{
    WriteRegister32(GetSIRMAddress(i) + 52, identifier);
}

std::uint32_t ControlChannel::GetIPUX(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 80); }
std::uint32_t ControlChannel::GetIPUY(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 84); }
std::uint32_t ControlChannel::GetImageSizeX(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 88); }
std::uint32_t ControlChannel::GetImageSizeY(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 92); }
std::uint32_t ControlChannel::GetImageOffsetX(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 96); }
std::uint32_t ControlChannel::GetImageOffsetY(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 100); }
std::uint16_t ControlChannel::GetImagePaddingX(std::uint32_t i) { return ReadRegister16(GetSIRMAddress(i) + 104); }
std::uint32_t ControlChannel::GetImagePixelFormat(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 108); }
std::uint16_t ControlChannel::GetImagePayloadType(std::uint32_t i) { return ReadRegister16(GetSIRMAddress(i) + 112); }
std::uint64_t ControlChannel::GetValidPayloadSize(std::uint32_t i) { return ReadRegister64(GetSIRMAddress(i) + 116); }
std::uint32_t ControlChannel::GetChunkLayoutID(std::uint32_t i) { return ReadRegister32(GetSIRMAddress(i) + 124); }

void ControlChannel::GetCSIDataIdentifiers(std::uint32_t streamIndex, std::set<std::uint32_t>& host,
                                           std::set<std::uint32_t>& device)
{
    host = outHandler->GetSupportedDataIdentifiers();
    device = GetDeviceDataIdentifiers(streamIndex);
}

void ControlChannel::ResetDevice()
{
    const std::int32_t result = outHandler->ResetDevice();
    if (result != 0)
        Fail((boost::format("Could not reset device (Reason: %1%).") % result).str());
}

void ControlChannel::GetPacketInfo(std::uint32_t& size, std::uint32_t& count)
{
    size = outHandler->GetMaxPacketSize();
    count = outHandler->GetMaxTransferCount();
}

std::string ControlChannel::GetDriverVersion()
{
    std::string version;
    outHandler->GetDriverVersion(version);
    return version;
}

std::string ControlChannel::GetDriverInterfaceVersion()
{
    std::string version;
    outHandler->GetLibraryVersion(version);
    return version;
}

std::string ControlChannel::GetLibcsiVersion()
{
    std::string version;
    outHandler->GetApiVersion(version);
    return version;
}

std::uint32_t ControlChannel::GetMinimumAlignment()
{
    std::uint32_t xMin, xMax, xInc, yMin, yMax, yInc, alignment = 0;
    if (!outHandler->GetIPURestrictions(xMin, xMax, xInc, yMin, yMax, yInc, alignment) || alignment == 0)
        return 1;
    std::uint32_t log2 = 0;
    while ((1u << (log2 + 1)) <= alignment && log2 < 31)
        ++log2;
    return log2;
}

} }
