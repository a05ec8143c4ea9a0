#include "gencp/ControlChannel.h"

#include "gencp/AckException.h"
#include "gencp/Commands.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <boost/format.hpp>
#include <boost/locale/encoding.hpp>
#include <boost/locale/encoding_utf.hpp>

#include <algorithm>
#include <cstring>
#include <new>

namespace QEL { namespace Base { namespace GenCP {

namespace {

using QEL::System::Clock;
using QEL::System::SharedMutexGuard;

// Bits of `cachedFlags`.
enum Cached : std::uint64_t {
    CachedVersion = 1u << 0,
    CachedCapability = 1u << 1,
    CachedResponseTime = 1u << 2,
    CachedManifestAddress = 1u << 3,
    CachedSBRMAddress = 1u << 4,
    CachedManifest = 1u << 5,
    CachedManufacturer = 1u << 6,
    CachedModel = 1u << 7,
    CachedFamily = 1u << 8,
    CachedDeviceVersion = 1u << 9,
    CachedManufacturerInfo = 1u << 10,
    CachedSerialNumber = 1u << 11,
};

constexpr std::uint32_t ResponseTimeReadTimeoutMs = 50;
constexpr int Attempts = 4;
constexpr std::uint16_t ErrorStatusBit = 0x8000;

[[noreturn]] void Fail(const char* text, GC_ERROR code = GC_ERR_ERROR) { throw Exception(text, code); }

template <class Ack>
struct AckCommand;
template <>
struct AckCommand<ReadMemoryAcknowledge> {
    static constexpr std::uint16_t id = CommandId::ReadMemoryAck;
};
template <bool WithLength>
struct AckCommand<WriteMemoryAcknowledge<WithLength>> {
    static constexpr std::uint16_t id = CommandId::WriteMemoryAck;
};

std::uint64_t Decode(const std::uint8_t* bytes, std::size_t width, bool bigEndian)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint64_t{bytes[bigEndian ? width - 1 - i : i]} << (8 * i);
    return value;
}

void Encode(std::uint8_t* bytes, std::uint64_t value, std::size_t width, bool bigEndian)
{
    for (std::size_t i = 0; i < width; ++i)
        bytes[bigEndian ? width - 1 - i : i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}

ControlChannel::ControlChannel(bool readOnly) : readOnly(readOnly), channelMutex(GetMutex()) {}

// A transport stops the heartbeat in its own destructor, while the packets
// can still move; this is the last safety net.
ControlChannel::~ControlChannel()
{
    try {
        SharedMutexGuard guard(channelMutex);
        StopHeartbeatThread();
    } catch (...) {
    }
}

// ---- Commands ----

template <class Ack>
std::shared_ptr<Ack> ControlChannel::Execute(const std::shared_ptr<Packet>& packet, std::uint32_t timeoutMs,
                                             std::size_t expectedBytes)
{
    SharedMutexGuard guard(channelMutex);
    if (!packet)
        Fail("No packet passed.", GC_ERR_INVALID_PARAMETER);
    if (!connected)
        Fail("Connectivity to device was lost.");
    expectedBytes = std::max<std::size_t>(expectedBytes, 4);
    // Request ID 0 is used once only, by the first command of the channel.
    const std::uint16_t id = requestId;
    requestId = id == 0xFFFF ? 1 : static_cast<std::uint16_t>(id + 1);
    const auto started = Clock::now();
    packet->SetFlags(Flags::RequestAck);
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        if (attempt > 0)
            packet->SetFlags(Flags::Resend);
        packet->SetRequestId(id);
        SendPacket(packet);
        std::uint32_t wait = timeoutMs;
        for (;;) {
            std::shared_ptr<Packet> answer = ReceivePacket(wait, expectedBytes);
            if (!answer)
                break;
            if (answer->GetRequestId() != id) {
                Flush();
                break;
            }
            const std::uint16_t command = answer->GetCommandId();
            if (command == CommandId::PendingAck) {
                if (answer->GetStatus() & ErrorStatusBit)
                    throw AckException("Erroneous pending acknowledge packet received", answer->GetStatus());
                wait = PendingAcknowledge(answer).GetTemporaryTimeout();
                continue;
            }
            if (command != AckCommand<Ack>::id)
                Fail("Unexpected acknowledge packet received.");
            lastAcknowledge = started;
            heartbeatDue = false;
            const auto next = started + std::chrono::milliseconds(heartbeatInterval);
            if (next < nextHeartbeat)
                condition.Broadcast();
            nextHeartbeat = next;
            if (answer->GetStatus() & ErrorStatusBit)
                throw AckException("Device reported an error while executing a request", answer->GetStatus());
            return Tools::MakeShared<Ack>("Could not allocate result acknowledge.", answer);
        }
    }
    Fail("Error while executing a request.");
}

void ControlChannel::ReadMemory(std::uint64_t address, void* data, std::size_t size, std::uint32_t timeoutMs)
{
    if (!data)
        Fail("No data passed.", GC_ERR_INVALID_PARAMETER);
    if (size == 0)
        Fail("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    const std::size_t block = GetMaxAcknowledgePayload();
    if (block == 0)
        Fail("Maximum acknowledge payload size insufficient for GenCP.");
    auto* bytes = static_cast<std::uint8_t*>(data);
    for (std::size_t done = 0; done < size;) {
        const std::size_t n = std::min(block, size - done);
        ReadBlock(address + done, bytes + done, n, timeoutMs);
        done += n;
    }
}

void ControlChannel::ReadMemory(std::uint64_t address, void* data, std::size_t size)
{
    ReadMemory(address, data, size, GetMaxDeviceResponseTime());
}

void ControlChannel::ReadBlock(std::uint64_t address, std::uint8_t* data, std::size_t size, std::uint32_t timeoutMs)
{
    if (size < 1 || size > 0xFFFF)
        Fail("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    std::shared_ptr<Packet> packet = CreatePacket(12);
    if (!packet)
        Fail("Could not allocate packet.");
    if (packet->GetPayloadSize() != 12)
        Fail("Invalid payload size found.");
    auto command = Tools::MakeShared<ReadMemoryCommand>("Could not allocate read memory command.", packet);
    command->SetAddress(address);
    command->SetSize(static_cast<std::uint16_t>(size));
    auto ack = Execute<ReadMemoryAcknowledge>(packet, timeoutMs, size);
    if (!ack)
        Fail("No read memory acknowledge received.");
    if (ack->GetDataSize() != size)
        Fail("Invalid amount of data received.");
    std::memcpy(data, ack->GetData(), size);
}

void ControlChannel::WriteMemory(std::uint64_t address, const void* data, std::size_t size, std::uint32_t timeoutMs)
{
    if (!data)
        Fail("No data passed.", GC_ERR_INVALID_PARAMETER);
    if (size == 0)
        Fail("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    const std::size_t maxPayload = GetMaxCommandPayload();
    if (maxPayload <= 8)
        Fail("Maximum command payload size insufficient for GenCP.");
    const std::size_t block = maxPayload - 8;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    for (std::size_t done = 0; done < size;) {
        const std::size_t n = std::min(block, size - done);
        WriteBlock(address + done, bytes + done, n, timeoutMs);
        done += n;
    }
}

void ControlChannel::WriteMemory(std::uint64_t address, const void* data, std::size_t size)
{
    if (readOnly)
        Fail("Control channel is in read-only mode.");
    WriteMemory(address, data, size, GetMaxDeviceResponseTime());
}

void ControlChannel::WriteBlock(std::uint64_t address, const std::uint8_t* data, std::size_t size,
                                std::uint32_t timeoutMs)
{
    if (readOnly)
        Fail("Control channel is in read-only mode.");
    if (size == 0)
        Fail("Invalid payload size passed.");
    std::shared_ptr<Packet> packet = CreatePacket(size + 8);
    if (!packet)
        Fail("Could not allocate packet.");
    if (packet->GetPayloadSize() != size + 8)
        Fail("Invalid payload size found.");
    auto command = Tools::MakeShared<WriteMemoryCommand>("Could not allocate write memory command.", packet);
    if (command->GetDataSize() != size)
        Fail("Invalid payload size retrieved.");
    command->SetAddress(address);
    std::memcpy(command->GetData(), data, size);
    if (GetCapabilityWrittenLength()) {
        auto ack = Execute<WriteMemoryAcknowledge<true>>(packet, timeoutMs, 4);
        if (!ack)
            Fail("No write memory acknowledge received.");
        if (ack->GetWrittenSize() != size)
            Fail("Invalid amount of data written.");
    } else if (!Execute<WriteMemoryAcknowledge<false>>(packet, timeoutMs, 4)) {
        Fail("No write memory acknowledge received.");
    }
}

// ---- Registers and strings ----

std::uint64_t ControlChannel::ReadValue(std::uint64_t address, std::size_t width)
{
    std::uint8_t bytes[8];
    ReadMemory(address, bytes, width);
    return Decode(bytes, width, GetByteOrder() != 0);
}

void ControlChannel::WriteValue(std::uint64_t address, std::uint64_t value, std::size_t width)
{
    std::uint8_t bytes[8];
    Encode(bytes, value, width, GetByteOrder() != 0);
    WriteMemory(address, bytes, width);
}

std::uint8_t ControlChannel::ReadRegister8(std::uint64_t address)
{
    return static_cast<std::uint8_t>(ReadValue(address, 1));
}

std::uint16_t ControlChannel::ReadRegister16(std::uint64_t address)
{
    return static_cast<std::uint16_t>(ReadValue(address, 2));
}

std::uint32_t ControlChannel::ReadRegister32(std::uint64_t address)
{
    return static_cast<std::uint32_t>(ReadValue(address, 4));
}

std::uint64_t ControlChannel::ReadRegister64(std::uint64_t address) { return ReadValue(address, 8); }

void ControlChannel::WriteRegister32(std::uint64_t address, std::uint32_t value) { WriteValue(address, value, 4); }

void ControlChannel::WriteRegister64(std::uint64_t address, std::uint64_t value) { WriteValue(address, value, 8); }

std::string ControlChannel::ReadString(std::uint64_t address, std::size_t size)
{
    const std::int32_t encoding = GetCapabilityStringEncoding();
    std::vector<std::uint8_t> bytes;
    Tools::Allocating("Could not allocate string array.", [&] { bytes.resize(size); });
    ReadMemory(address, bytes.data(), size);
    if (encoding == 2) {
        // Units in the device's order come out in the host's.
        std::u16string units;
        for (std::size_t i = 0; i + 1 < size; i += 2) {
            const auto unit = static_cast<char16_t>(Decode(&bytes[i], 2, GetByteOrder() != 0));
            if (unit == 0)
                break;
            units.push_back(unit);
        }
        return boost::locale::conv::utf_to_utf<char>(units);
    }
    const std::string text(reinterpret_cast<const char*>(bytes.data()),
                           std::find(bytes.begin(), bytes.end(), 0) - bytes.begin());
    return encoding == 0 ? boost::locale::conv::to_utf<char>(text, "US-ASCII") : text;
}

void ControlChannel::WriteString(std::uint64_t address, std::size_t size, const std::string& text)
{
    const std::int32_t encoding = GetCapabilityStringEncoding();
    std::vector<std::uint8_t> bytes;
    Tools::Allocating("Could not allocate string array.", [&] { bytes.assign(size, 0); });
    if (encoding == 2) {
        const std::u16string units = boost::locale::conv::utf_to_utf<char16_t>(text);
        if (units.size() > size / 2)
            Fail("String too long for the register.");
        for (std::size_t i = 0; i < units.size(); ++i)
            Encode(&bytes[2 * i], units[i], 2, GetByteOrder() != 0);
    } else {
        const std::string encoded = encoding == 0 ? boost::locale::conv::from_utf<char>(text, "US-ASCII") : text;
        if (encoded.size() > size)
            Fail("String too long for the register.");
        std::copy(encoded.begin(), encoded.end(), bytes.begin());
    }
    WriteMemory(address, bytes.data(), size);
}

// ---- Bootstrap registers ----

// The cached registers are read once, by whichever thread asks first; the
// channel's mutex keeps the flags and values of every thread's view in step.
std::uint64_t ControlChannel::CachedValue(std::uint64_t flag, std::uint64_t& cache, std::uint64_t address)
{
    SharedMutexGuard guard(channelMutex);
    if (!(cachedFlags & flag)) {
        cache = ReadRegister64(address);
        cachedFlags |= flag;
    }
    return cache;
}

std::string ControlChannel::CachedString(std::uint64_t flag, std::string& cache, std::uint64_t address)
{
    SharedMutexGuard guard(channelMutex);
    if (!(cachedFlags & flag)) {
        cache = ReadString(address, StringRegisterSize);
        cachedFlags |= flag;
    }
    return cache;
}

std::uint32_t ControlChannel::GetMaxDeviceResponseTime()
{
    SharedMutexGuard guard(channelMutex);
    if (!(cachedFlags & CachedResponseTime)) {
        std::uint8_t bytes[4];
        ReadMemory(ABRM::MaxDeviceResponseTime, bytes, sizeof bytes, ResponseTimeReadTimeoutMs);
        const auto value = Decode(bytes, 4, GetByteOrder() != 0);
        if (value == 0)
            Fail("Invalid maximum device response time detected.");
        maxDeviceResponseTime = value;
        cachedFlags |= CachedResponseTime;
    }
    return static_cast<std::uint32_t>(maxDeviceResponseTime);
}

Tools::Version ControlChannel::GetVersion()
{
    SharedMutexGuard guard(channelMutex);
    if (!(cachedFlags & CachedVersion)) {
        version = ReadRegister32(ABRM::GenCPVersion);
        cachedFlags |= CachedVersion;
    }
    return Tools::Version(version >> 16, version & 0xFFFF);
}

std::uint64_t ControlChannel::GetDeviceCapability()
{
    return CachedValue(CachedCapability, capability, ABRM::DeviceCapability);
}

bool ControlChannel::CapabilityBit(unsigned bit) { return (GetDeviceCapability() >> bit) & 1; }

bool ControlChannel::GetCapabilityUserDefinedName() { return CapabilityBit(0); }
bool ControlChannel::GetCapabilityAccessPrivilege() { return !readOnly && CapabilityBit(1); }
bool ControlChannel::GetCapabilityMessageChannel() { return CapabilityBit(2); }
bool ControlChannel::GetCapabilityTimestamp() { return CapabilityBit(3); }
bool ControlChannel::GetCapabilityFamilyName() { return CapabilityBit(8); }
bool ControlChannel::GetCapabilitySBRM() { return CapabilityBit(9); }
bool ControlChannel::GetCapabilityByteOrder() { return CapabilityBit(10); }
bool ControlChannel::GetCapabilityWrittenLength() { return CapabilityBit(11); }

std::int32_t ControlChannel::GetCapabilityStringEncoding()
{
    const auto encoding = static_cast<std::int32_t>((GetDeviceCapability() >> 4) & 0xF);
    if (encoding >= 3)
        Fail("Invalid string encoding detected.");
    return encoding;
}

std::string ControlChannel::GetManufacturerName()
{
    return CachedString(CachedManufacturer, manufacturer, ABRM::ManufacturerName);
}

std::string ControlChannel::GetModelName() { return CachedString(CachedModel, model, ABRM::ModelName); }

std::string ControlChannel::GetFamilyName()
{
    if (!GetCapabilityFamilyName())
        Fail("Family name not supported.");
    return CachedString(CachedFamily, family, ABRM::FamilyName);
}

std::string ControlChannel::GetDeviceVersion()
{
    return CachedString(CachedDeviceVersion, deviceVersion, ABRM::DeviceVersion);
}

std::string ControlChannel::GetManufacturerInfo()
{
    return CachedString(CachedManufacturerInfo, manufacturerInfo, ABRM::ManufacturerInfo);
}

std::string ControlChannel::GetSerialNumber()
{
    return CachedString(CachedSerialNumber, serialNumber, ABRM::SerialNumber);
}

std::string ControlChannel::GetUserDefinedName()
{
    if (!GetCapabilityUserDefinedName())
        Fail("User defined name not supported.");
    return ReadString(ABRM::UserDefinedName, StringRegisterSize);
}

void ControlChannel::SetUserDefinedName(const std::string& name)
{
    if (!GetCapabilityUserDefinedName())
        Fail("User defined name not supported.");
    WriteString(ABRM::UserDefinedName, StringRegisterSize, name);
}

std::uint64_t ControlChannel::GetManifestTableAddress()
{
    return CachedValue(CachedManifestAddress, manifestAddress, ABRM::ManifestTableAddress);
}

std::uint64_t ControlChannel::GetSBRMAddress()
{
    if (!GetCapabilitySBRM())
        Fail("SBRM not supported.");
    return CachedValue(CachedSBRMAddress, sbrmAddress, ABRM::SBRMAddress);
}

std::uint64_t ControlChannel::GetDeviceConfiguration() { return ReadRegister64(ABRM::DeviceConfiguration); }

void ControlChannel::SetDeviceConfiguration(std::uint64_t value) { WriteRegister64(ABRM::DeviceConfiguration, value); }

void ControlChannel::RequireAccessPrivilege()
{
    if (!GetCapabilityAccessPrivilege())
        Fail("Access privilege not supported.");
}

std::uint32_t ControlChannel::GetHeartbeatTimeout()
{
    RequireAccessPrivilege();
    return ReadRegister32(ABRM::HeartbeatTimeout);
}

void ControlChannel::SetHeartbeatTimeout(std::uint32_t milliseconds)
{
    RequireAccessPrivilege();
    WriteRegister32(ABRM::HeartbeatTimeout, milliseconds);
}

std::uint32_t ControlChannel::GetMessageChannelId()
{
    if (!GetCapabilityMessageChannel())
        Fail("Message channel not supported.");
    return ReadRegister32(ABRM::MessageChannelId);
}

std::uint64_t ControlChannel::GetTimestamp()
{
    if (!GetCapabilityTimestamp())
        Fail("Timestamp not supported.");
    return ReadRegister64(ABRM::Timestamp);
}

void ControlChannel::LatchTimestamp()
{
    if (!GetCapabilityTimestamp())
        Fail("Timestamp not supported.");
    WriteRegister32(ABRM::TimestampLatch, 1);
}

std::uint64_t ControlChannel::GetTimestampIncrement()
{
    if (!GetCapabilityTimestamp())
        Fail("Timestamp not supported.");
    return ReadRegister64(ABRM::TimestampIncrement);
}

std::uint32_t ControlChannel::GetAccessPrivilege()
{
    RequireAccessPrivilege();
    const std::uint32_t value = ReadRegister32(ABRM::AccessPrivilege) & 0x7;
    if (value > 1)
        Fail("Unsupported access privilege found.");
    return value;
}

void ControlChannel::SetAccessPrivilege(std::uint32_t value)
{
    RequireAccessPrivilege();
    if (value > 1)
        Fail("Unsupported access privilege passed.");
    WriteRegister32(ABRM::AccessPrivilege, value);
}

std::int32_t ControlChannel::GetImplementationByteOrder()
{
    if (!GetCapabilityByteOrder())
        Fail("Byte order register not supported.");
    const std::uint32_t value = ReadRegister32(ABRM::ImplementationByteOrder);
    if (value == 0xFFFFFFFF)
        return 0;
    if (value == 0)
        return 1;
    Fail("Invalid byte order detected.");
}

// ---- Manifest ----

std::uint64_t ControlChannel::GetManifestEntryCount()
{
    SharedMutexGuard guard(channelMutex);
    if (!(cachedFlags & CachedManifest)) {
        const std::uint64_t table = GetManifestTableAddress();
        const std::uint64_t count = ReadRegister64(table);
        if (count == 0)
            Fail("Invalid manifest table entry count detected.");
        std::vector<ManifestEntry> entries;
        const bool bigEndian = GetByteOrder() != 0;
        for (std::uint64_t i = 0; i < count; ++i) {
            std::uint8_t raw[64];
            ReadMemory(table + 8 + 64 * i, raw, sizeof raw);
            // Decoding the two words and two values in the device's order
            // swaps them where it differs from the host's.
            const auto word0 = static_cast<std::uint32_t>(Decode(raw, 4, bigEndian));
            const auto word1 = static_cast<std::uint32_t>(Decode(raw + 4, 4, bigEndian));
            ManifestEntry entry;
            entry.fileVersion = Tools::Version(word0 >> 24, (word0 >> 16) & 0xFF, word0 & 0xFFFF);
            entry.fileType = (word1 >> 10) & 0x3F;
            if (entry.fileType > 1)
                Fail("Invalid file type detected.");
            entry.schemaVersion = Tools::Version(word1 >> 24, (word1 >> 16) & 0xFF);
            entry.address = Decode(raw + 8, 8, bigEndian);
            entry.size = Decode(raw + 16, 8, bigEndian);
            if (std::any_of(raw + 24, raw + 44, [](std::uint8_t b) { return b != 0; }))
                entry.sha1.assign(raw + 24, raw + 44);
            entries.push_back(entry);
        }
        manifest = std::move(entries);
        cachedFlags |= CachedManifest;
    }
    return manifest.size();
}

ManifestEntry ControlChannel::GetManifestEntry(std::uint64_t index)
{
    SharedMutexGuard guard(channelMutex);
    if (index >= GetManifestEntryCount())
        Fail("Invalid index passed.");
    return manifest[index];
}

// ---- Heartbeat ----

bool ControlChannel::IsHeartbeatStopped() const
{
    SharedMutexGuard guard(channelMutex);
    return heartbeatState == Idle;
}

bool ControlChannel::IsHeartbeatPaused() const
{
    SharedMutexGuard guard(channelMutex);
    return heartbeatState == Paused;
}

bool ControlChannel::IsConnected() const
{
    SharedMutexGuard guard(channelMutex);
    return connected;
}

std::uint32_t ControlChannel::GetHeartbeatInterval() const
{
    SharedMutexGuard guard(channelMutex);
    return heartbeatInterval;
}

void ControlChannel::SetHeartbeatInterval(std::uint32_t milliseconds)
{
    SharedMutexGuard guard(channelMutex);
    heartbeatInterval = milliseconds;
    if (heartbeatDue || lastAcknowledge == QEL::System::TimePoint::max())
        return;
    const auto next = lastAcknowledge + std::chrono::milliseconds(milliseconds);
    if (next < nextHeartbeat)
        condition.Broadcast();
    nextHeartbeat = next;
}

void ControlChannel::StartHeartbeat()
{
    RequireAccessPrivilege();
    SharedMutexGuard guard(channelMutex);
    if (heartbeatState == Running || heartbeatState == StopRequested || heartbeatState == Paused)
        Fail("Heartbeat already running.");
    if (heartbeatState != Idle)
        Fail("Invalid thread state found.");
    if (GetAccessPrivilege() != 0)
        Fail("Device is not available at the moment.");
    SetDeviceConfiguration(GetDeviceConfiguration() | 1);
    try {
        SetAccessPrivilege(1);
        if (heartbeatThread.joinable())
            heartbeatThread.join();
        heartbeatThread = std::thread([this] { HeartbeatLoop(); });
        heartbeatState = Running;
        heartbeatThreadRunning = true;
    } catch (...) {
        EndHeartbeatThread();
        throw;
    }
}

void ControlChannel::HeartbeatLoop()
{
    // Nothing may escape the thread: what the inner handlers do not catch is
    // logged here, and the thread still reports its end.
    try {
        HeartbeatBody();
    } catch (const System::Exception& e) {
        Tools::Logger::Log(e.GetMessage());
        EndHeartbeatThreadState();
    } catch (...) {
        Tools::Logger::Log("Unexpected error in heartbeat thread.");
        EndHeartbeatThreadState();
    }
}

void ControlChannel::EndHeartbeatThreadState()
{
    try {
        SharedMutexGuard guard(channelMutex);
        heartbeatThreadRunning = false;
        condition.Broadcast();
    } catch (...) {
    }
}

void ControlChannel::HeartbeatBody()
{
    SharedMutexGuard guard(channelMutex);
    try {
        while ((heartbeatState == Running || heartbeatState == Paused) && connected) {
            if (heartbeatState == Paused) {
                condition.Wait(*channelMutex);
            } else if (!heartbeatDue && Clock::now() < nextHeartbeat) {
                condition.TimedWait(*channelMutex, nextHeartbeat);
            } else {
                // The read is an exchange with the device, which keeps its heartbeat timer alive.
                if (GetAccessPrivilege() != 1)
                    Fail("Access privilege lost unexpectedly.");
            }
        }
    } catch (const System::Exception& e) {
        connected = false;
        Tools::Logger::Log((boost::format("Connection to device lost (Reason: %1%).") % e.GetMessage()).str());
    } catch (...) {
        connected = false;
        Tools::Logger::Log("Connection to device lost.");
    }
    EndHeartbeatThread();
    heartbeatThreadRunning = false;
    condition.Broadcast();
}

// Gives the device's access privilege back and disables its heartbeat.
void ControlChannel::EndHeartbeatThread()
{
    if (!connected)
        return;
    try {
        SetAccessPrivilege(0);
    } catch (const System::Exception& e) {
        Tools::Logger::Log((boost::format("Could not reset access privilege (Reason: %1%).") % e.GetMessage()).str());
    } catch (...) {
        Tools::Logger::Log("Could not reset access privilege.");
    }
    try {
        SetDeviceConfiguration(GetDeviceConfiguration() & ~std::uint64_t{1});
    } catch (const System::Exception& e) {
        Tools::Logger::Log((boost::format("Could not disable heartbeat (Reason: %1%).") % e.GetMessage()).str());
    } catch (...) {
        Tools::Logger::Log("Could not disable heartbeat.");
    }
}

void ControlChannel::StopHeartbeatThread()
{
    if (heartbeatState == Running || heartbeatState == Paused) {
        heartbeatState = StopRequested;
        condition.Broadcast();
    }
    while (heartbeatThreadRunning)
        condition.Wait(*channelMutex);
    if (heartbeatThread.joinable())
        heartbeatThread.join();
    heartbeatState = Idle;
}

void ControlChannel::StopHeartbeat()
{
    RequireAccessPrivilege();
    SharedMutexGuard guard(channelMutex);
    if (heartbeatState == Idle || heartbeatState == StopRequested)
        Fail("Cannot stop because heartbeat is not running.");
    StopHeartbeatThread();
    connected = true;
}

void ControlChannel::PauseHeartbeat()
{
    RequireAccessPrivilege();
    SharedMutexGuard guard(channelMutex);
    if (heartbeatState == Idle || heartbeatState == StopRequested)
        Fail("Cannot pause because heartbeat is not running.");
    if (heartbeatState != Running && heartbeatState != Paused)
        Fail("Invalid thread state found.");
    heartbeatState = Paused;
}

void ControlChannel::ResumeHeartbeat()
{
    RequireAccessPrivilege();
    SharedMutexGuard guard(channelMutex);
    if (heartbeatState == Idle || heartbeatState == StopRequested)
        Fail("Cannot resume because heartbeat is not running.");
    if (heartbeatState == Running)
        Fail("Cannot resume because heartbeat is not paused.");
    if (heartbeatState != Paused)
        Fail("Invalid thread state found.");
    heartbeatState = Running;
    condition.Broadcast();
}

} } }
