#include "sim/CameraFirmware.h"

#include "sim/CameraMap.h"
#include "sim/CameraXML.h"
#include "sim/TextEncoding.h"
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "support/Sha1.h"

#include <boost/crc.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

namespace QEL { namespace Sim {

using namespace CameraMap;

// The camera computes its CRC itself: reflected CRC-32 without the final inversion.
std::uint32_t GenCPCrc32(const std::uint8_t* data, std::size_t size)
{
    boost::crc_optimal<32, 0x04C11DB7u, 0xFFFFFFFFu, 0u, true, true> crc;
    crc.process_bytes(data, size);
    return crc.checksum();
}

namespace {

// What a powered camera keeps between the processes that open it: the user
// name and the settings of its document; not the commands, not what a host
// writes at every open (the IPU restrictions, the stream's registers).
constexpr std::uint64_t UserDefinedName = 0x0184;
constexpr std::uint64_t KeptAddresses[] = {UserDefinedName, Width,        Height,          OffsetX,
                                           OffsetY,         PixelFormatRegister, TestPattern,  ExposureTime,
                                           Gain,            AcquisitionFrameRate, AcquisitionMode, AcquisitionFrameCount};

template <class T>
void Put(std::vector<std::uint8_t>& bytes, std::size_t offset, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[offset + i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i));
}

template <class T>
T Get(const std::vector<std::uint8_t>& bytes, std::size_t offset)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        value |= std::uint64_t{bytes[offset + i]} << (8 * i);
    return static_cast<T>(value);
}

std::uint64_t Value(const std::vector<std::uint8_t>& bytes)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes.size() && i < 8; ++i)
        value |= std::uint64_t{bytes[i]} << (8 * i);
    return value;
}

double Float(const std::vector<std::uint8_t>& bytes)
{
    double value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t step) { return step ? (value + step - 1) / step * step : value; }

MemoryMap::Status Refuse(bool bad) { return bad ? MemoryMap::InvalidParameter : MemoryMap::Success; }

}

CameraFirmware::CameraFirmware(const CameraDescription& camera, FaultPlan& plan)
    : description(camera), faults(plan), cci(0x10000, 0),
      xml(camera.document.empty() ? CameraXML(camera) : camera.document)
{
    BuildMemory();
    for (const std::uint64_t address : KeptAddresses)
        described[address] = memory.At(address).bytes;
    ResetState();
}

void CameraFirmware::BuildMemory()
{
    const unsigned encoding = description.stringEncoding;
    // Bootstrap registers.
    memory.AddValue(0x0000, 4, 0x00010002, false);
    memory.AddString(0x0004, 64, EncodeCameraString(description.manufacturer, encoding), false);
    memory.AddString(0x0044, 64, EncodeCameraString(description.model, encoding), false);
    memory.AddString(0x0084, 64, EncodeCameraString(description.family, encoding), false);
    memory.AddString(0x00C4, 64, EncodeCameraString(description.deviceVersion, encoding), false);
    memory.AddString(0x0104, 64, EncodeCameraString(description.manufacturerInfo, encoding), false);
    memory.AddString(0x0144, 64, EncodeCameraString(description.serialNumber, encoding), false);
    memory.AddString(UserDefinedName, 64, EncodeCameraString(description.userDefinedName, encoding), true);
    memory.AddValue(0x01C4, 8, 0xF01 | (encoding << 4), false); // user name, family, SBRM, byte order, written length
    memory.AddValue(0x01CC, 4, 200, false);
    memory.AddValue(0x01D0, 8, Manifest, false);
    memory.AddValue(0x01D8, 8, Sbrm, false);
    memory.AddValue(0x01E0, 8, 0, true);
    memory.AddValue(0x01E8, 4, 3000, true);
    memory.AddValue(0x01EC, 4, 0, false);
    memory.AddValue(0x01F0, 8, 0, false);
    memory.AddValue(0x01F8, 4, 0, false);
    memory.AddValue(0x01FC, 8, 0, false);
    memory.AddValue(0x0204, 4, 0, true);
    memory.AddValue(0x0208, 4, 0, false);
    memory.AddValue(0x020C, 4, 0xFFFFFFFFu, false);

    // Technology specific bootstrap registers.
    memory.AddValue(Sbrm + 0, 4, 0x00010000, false);
    // SIRM, leader and trailer sent (bit 1, unless the description says not), DPHY reset.
    memory.AddValue(Sbrm + 4, 4, description.leaderTrailer ? 0x7 : 0x5, false);
    memory.AddValue(Sbrm + 8, 4, 0, false);
    memory.AddValue(Sbrm + 12, 4, 1, false);
    memory.AddValue(Sbrm + 16, 4, description.laneMask, false);
    memory.AddValue(Sbrm + 20, 4, 2, true);
    memory.AddValue(Sbrm + 24, 8, 0, false);
    memory.AddValue(Sbrm + 32, 4, 450000000, true).onWrite = [this](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        const std::uint64_t clock = Value(v);
        return Refuse(clock < description.clockMinHz || clock > description.clockMaxHz);
    };
    memory.AddValue(Sbrm + 36, 8, Sirm, false);
    memory.AddValue(Sbrm + 44, 4, SirmLength, false);
    memory.AddValue(Sbrm + 48, 4, 0, true);

    // Streaming interface registers of stream 0.
    memory.AddValue(Sirm + 0, 4, 0, true);
    memory.AddValue(Sirm + 4, 4, LeaderSize(), false);
    memory.Add(Sirm + 8, 8, false).onRead = [this](MemoryMap::Field& f) { Put<std::uint64_t>(f.bytes, 0, ComputeGeometry().payloadSize); };
    memory.AddValue(Sirm + 16, 4, TrailerSize(), false);
    memory.AddValue(Sirm + 20, 8, (std::uint64_t{1} << 49) | (std::uint64_t{1} << 42), false);
    memory.AddValue(Sirm + 28, 8, 0, false);
    memory.AddValue(Sirm + 36, 8, 0, false);
    memory.AddValue(Sirm + 44, 8, 0, false);
    memory.AddValue(Sirm + 52, 4, 42, true).onWrite = [](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        const std::uint64_t id = Value(v);
        return Refuse(id != 42 && id != 49);
    };
    const std::uint32_t restrictions[] = {256, 32768, 8, 1, 32768, 1};
    for (int i = 0; i < 6; ++i)
        memory.AddValue(Sirm + 56 + std::uint64_t{4} * i, 4, restrictions[i], true);
    auto geometryField = [this](std::uint64_t offset, std::size_t size, auto pick) {
        memory.Add(Sirm + offset, size, false).onRead = [this, pick, size](MemoryMap::Field& f) {
            const FrameGeometry g = ComputeGeometry();
            const std::uint64_t value = pick(g);
            for (std::size_t i = 0; i < size; ++i)
                f.bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
        };
    };
    geometryField(80, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.ipuX; });
    geometryField(84, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.ipuY; });
    geometryField(88, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.width; });
    geometryField(92, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.height; });
    geometryField(96, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.offsetX; });
    geometryField(100, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.offsetY; });
    memory.AddValue(Sirm + 104, 4, 0, false);
    geometryField(108, 4, [](const FrameGeometry& g) -> std::uint64_t { return g.format->pfnc; });
    memory.AddValue(Sirm + 112, 4, description.chunkData ? ChunkPayloadType : 1, false);
    geometryField(116, 8, [](const FrameGeometry& g) -> std::uint64_t { return g.validBytes; });
    memory.AddValue(Sirm + 124, 4, description.chunkData ? ChunkLayoutID : 0, false);

    // Manifest with the GenApi document; further entries are copies that a
    // comment at their end tells apart, file versions 1.0.1, 1.0.2, ...
    const std::uint32_t entries = description.manifestEntries;
    std::vector<std::uint8_t> manifest(8 + std::size_t{64} * entries, 0);
    Put<std::uint64_t>(manifest, 0, entries);
    for (std::uint32_t i = 0; i < entries; ++i) {
        std::string text = xml;
        if (i > 0)
            text += "<!-- manifest entry " + std::to_string(i) + " -->\n";
        std::vector<std::uint8_t> document(text.begin(), text.end());
        const auto digest = Tools::Sha1Digest(document.data(), document.size());
        const std::size_t entry = 8 + std::size_t{64} * i;
        Put<std::uint16_t>(manifest, entry + 0, static_cast<std::uint16_t>(i)); // file version 1.0.i
        manifest[entry + 2] = 0;
        manifest[entry + 3] = 1;
        manifest[entry + 5] = 0;                    // uncompressed
        manifest[entry + 6] = 1;                    // schema 1.1
        manifest[entry + 7] = 1;
        Put<std::uint64_t>(manifest, entry + 8, XmlFileAddress(i));
        Put<std::uint64_t>(manifest, entry + 16, document.size());
        std::copy(digest.begin(), digest.end(), manifest.begin() + static_cast<std::ptrdiff_t>(entry) + 24);
        memory.AddBytes(XmlFileAddress(i), document);
        documents.push_back({XmlFileAddress(i), document.size()});
    }
    memory.AddBytes(Manifest, manifest);

    // Features.
    memory.AddValue(WidthMax, 4, description.widthMax, false);
    memory.AddValue(HeightMax, 4, description.heightMax, false);
    memory.AddValue(Width, 4, description.width, true).onWrite = [this](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        const std::uint64_t w = Value(v);
        return Refuse(w == 0 || w % 8 != 0 || w + memory.GetValue(OffsetX) > description.widthMax);
    };
    memory.AddValue(Height, 4, description.height, true).onWrite = [this](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        const std::uint64_t h = Value(v);
        return Refuse(h == 0 || h + memory.GetValue(OffsetY) > description.heightMax);
    };
    memory.AddValue(OffsetX, 4, 0, true).onWrite = [this](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        const std::uint64_t x = Value(v);
        return Refuse(x % 8 != 0 || x + memory.GetValue(Width) > description.widthMax);
    };
    memory.AddValue(OffsetY, 4, 0, true).onWrite = [this](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        return Refuse(Value(v) + memory.GetValue(Height) > description.heightMax);
    };
    memory.AddValue(PixelFormatRegister, 4, PixelFormatByName(description.pixelFormat).pfnc, true).onWrite =
        [](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
            for (const auto& format : PixelFormats())
                if (format.pfnc == Value(v))
                    return MemoryMap::Success;
            return MemoryMap::InvalidParameter;
        };
    memory.AddValue(TestPattern, 4, 0, true).onWrite = [](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        return Refuse(Value(v) > 3);
    };
    memory.Add(PayloadSize, 8, false).onRead = [this](MemoryMap::Field& f) { Put<std::uint64_t>(f.bytes, 0, ComputeGeometry().payloadSize); };
    auto addFloat = [this](std::uint64_t address, double value, double min, double max) {
        MemoryMap::Field& field = memory.Add(address, 8, true);
        std::memcpy(field.bytes.data(), &value, sizeof value);
        field.onWrite = [min, max](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
            const double x = Float(v);
            return Refuse(!(x >= min && x <= max));
        };
    };
    addFloat(ExposureTime, 10000.0, 10.0, 10000000.0);
    addFloat(Gain, 0.0, 0.0, 48.0);
    addFloat(AcquisitionFrameRate, description.frameRate > 0 ? description.frameRate : 1000.0, 0.1, 1000.0);
    memory.AddValue(AcquisitionMode, 4, 0, true).onWrite = [](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        return Refuse(Value(v) > 2);
    };
    memory.AddValue(AcquisitionFrameCount, 4, 1, true);
    auto addCommand = [this](std::uint64_t address, bool start) {
        memory.AddValue(address, 4, 0, true).onWrite = [this, start](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
            if (Value(v) != 0)
                acquiring = start;
            std::fill(v.begin(), v.end(), 0); // a command register reads back 0
            return MemoryMap::Success;
        };
    };
    // The indirect ASIC registers: an address register and a data register.
    asic = {{0x50000400, 0x00000010}, {0x50000404, 0x00000020}, {0x50000408, 0x00000030}, {0x5000040C, 0x00000040},
            {0x60022064, 4},          {0x60022068, 36},         {0x6002206C, 4},          {0x60022070, 44},
            {0x60022074, 148},        {0x60022078, 88}};
    memory.AddValue(AsicAddress, 4, 0, true);
    MemoryMap::Field& data = memory.AddValue(AsicData, 4, 0, true);
    data.onRead = [this](MemoryMap::Field& f) { Put<std::uint32_t>(f.bytes, 0, asic[static_cast<std::uint32_t>(memory.GetValue(AsicAddress))]); };
    data.onWrite = [this](MemoryMap::Field&, std::vector<std::uint8_t>& v) {
        asic[static_cast<std::uint32_t>(memory.GetValue(AsicAddress))] = static_cast<std::uint32_t>(Value(v));
        return MemoryMap::Success;
    };
    addCommand(AcquisitionStart, true);
    addCommand(AcquisitionStop, false);
    addCommand(AcquisitionAbort, false);
}

void CameraFirmware::PowerCycle()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        ResetState();
        ResetKeptLocked();
    }
    PassKeptOn();
}

void CameraFirmware::RestoreDescription()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        ResetKeptLocked();
    }
    PassKeptOn();
}

void CameraFirmware::ResetKeptLocked()
{
    for (const auto& [address, bytes] : described)
        memory.At(address).bytes = bytes;
    keptChanged = true;
}

CameraFirmware::KeptValues CameraFirmware::KeptValuesLocked()
{
    KeptValues values;
    for (const auto& [address, bytes] : described)
        if (memory.At(address).bytes != bytes)
            values[address] = memory.At(address).bytes;
    return values;
}

std::vector<std::uint64_t> CameraFirmware::ReplaceKeptValues(const KeptValues& values)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [address, bytes] : described)
        memory.At(address).bytes = bytes;
    return RestoreKeptLocked(values);
}

std::vector<std::uint64_t> CameraFirmware::RestoreKeptLocked(const KeptValues& values)
{
    KeptValues remaining;
    std::vector<std::uint64_t> refused;
    for (const auto& [address, bytes] : values) {
        const auto kept = described.find(address);
        if (kept == described.end() || kept->second.size() != bytes.size())
            refused.push_back(address);
        else
            remaining.insert({address, bytes});
    }
    for (bool progress = true; progress && !remaining.empty();) {
        progress = false;
        for (auto it = remaining.begin(); it != remaining.end();) {
            if (memory.Write(it->first, it->second.data(), it->second.size()) == MemoryMap::Success) {
                it = remaining.erase(it);
                progress = true;
            } else {
                ++it;
            }
        }
    }
    for (const auto& entry : remaining)
        refused.push_back(entry.first);
    return refused;
}

void CameraFirmware::SetKeeper(std::function<void(const KeptValues&)> newKeeper)
{
    std::lock_guard<std::mutex> keeping(keeperMutex);
    keeper = std::move(newKeeper);
}

void CameraFirmware::PassKeptOn()
{
    if (!keptChanged.load())
        return;
    std::lock_guard<std::mutex> keeping(keeperMutex);
    KeptValues values;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!keptChanged.exchange(false))
            return; // another thread passed this change on
        values = KeptValuesLocked();
    }
    if (keeper)
        keeper(values);
}

void CameraFirmware::ResetState()
{
    std::fill(cci.begin(), cci.end(), 0);
    SetCciValue(CciLayoutVersion, 4, description.cciLayoutVersion);
    SetCciValue(CciGcprmAddress, 2, Gcprm);
    SetCciValue(CciBcrmAddress, 2, Bcrm);
    SetCciValue(GcprmLayoutVersion, 4, description.layoutVersion);
    SetCciValue(GcprmOutBufferAddress, 2, GenCPOutBuffer);
    SetCciValue(GcprmInBufferAddress, 2, GenCPInBuffer);
    for (int i = 0; i < 8; ++i)
        cci[BcrmFirmwareVersion + i] = static_cast<std::uint8_t>(description.firmwareVersion >> (56 - 8 * i));
    mode = targetMode = 0;
    packetWaiting = false;
    handshakeStuck = false;
    answers.clear();
    acquiring = false;
    memory.SetValue(Sirm + 0, 0);
}

std::uint32_t CameraFirmware::CciValue(std::uint16_t address, std::size_t size)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value = value << 8 | cci[address + i];
    return value;
}

void CameraFirmware::SetCciValue(std::uint16_t address, std::size_t size, std::uint32_t value)
{
    for (std::size_t i = 0; i < size; ++i)
        cci[address + i] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - i)));
}

void CameraFirmware::BusDelay(std::size_t bytes)
{
    busBytes += bytes;
    if (!description.busTiming || description.busSpeed == 0)
        return;
    // Nine clocks a byte (eight bits and the acknowledge), plus start and stop.
    const std::chrono::nanoseconds duration((bytes * 9 + 2) * 1000000000ull / description.busSpeed);
    // A sleep overshoots by the timer's wake-up latency (50 to 150 us on a
    // busy machine), more than a short transfer lasts: slept per transfer, a
    // poll of the handshake would cost several times its bus time. Transfers
    // run up what they owe instead and sleep it off a millisecond at a time,
    // an overshoot counting against the next ones.
    std::chrono::nanoseconds owed;
    {
        std::lock_guard<std::mutex> lock(busMutex);
        busTimeOwed += duration;
        if (busTimeOwed < std::chrono::milliseconds(1))
            return;
        owed = busTimeOwed;
    }
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(owed);
    const auto slept = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
    std::lock_guard<std::mutex> lock(busMutex);
    // A long preemption is no credit for the bus.
    busTimeOwed = std::max(busTimeOwed - slept, -std::chrono::nanoseconds(std::chrono::milliseconds(1)));
}

int CameraFirmware::ReadCCI(std::uint16_t address, std::uint8_t* data, std::size_t size)
{
    const int result = ServeCCIRead(address, data, size);
    PassKeptOn(); // a packet taken late may have been a write
    return result;
}

int CameraFirmware::WriteCCI(std::uint16_t address, const std::uint8_t* data, std::size_t size)
{
    const int result = ServeCCIWrite(address, data, size);
    PassKeptOn();
    return result;
}

int CameraFirmware::ServeCCIRead(std::uint16_t address, std::uint8_t* data, std::size_t size)
{
    if (faults.Take(Fault::I2CInterrupted))
        return EINTR;
    if (faults.Take(Fault::I2CReadFailure))
        return EIO;
    if (std::size_t{address} + size > cci.size())
        return EINVAL;
    BusDelay(size + 4);
    std::lock_guard<std::mutex> lock(mutex);
    Advance();
    std::memcpy(data, &cci[address], size);
    return 0;
}

int CameraFirmware::ServeCCIWrite(std::uint16_t address, const std::uint8_t* data, std::size_t size)
{
    if (faults.Take(Fault::I2CInterrupted))
        return EINTR;
    if (faults.Take(Fault::I2CWriteFailure))
        return EIO;
    if (std::size_t{address} + size > cci.size())
        return EINVAL;
    BusDelay(size + 3);
    std::lock_guard<std::mutex> lock(mutex);
    Advance();
    std::memcpy(&cci[address], data, size);
    const auto covers = [&](std::uint16_t reg) { return address <= reg && reg < address + size; };
    if (covers(CciCurrentMode))
        cci[CciCurrentMode] = mode; // read only
    if (covers(CciChangeMode)) {
        targetMode = cci[CciChangeMode] ? 1 : 0;
        modeReadyAt = Clock::now() + std::chrono::milliseconds(description.modeSwitchDelayMs);
    }
    if (covers(CciReset) && cci[CciReset] == 1) {
        ResetState();
        ResetKeptLocked();
        return 0;
    }
    if (covers(GcprmOutHandshake) && cci[GcprmOutHandshake] == 1 && !packetWaiting) {
        packetWaiting = true;
        std::uint64_t delay = 0;
        handshakeStuck = false;
        packetTakenAt = Clock::now();
        if (faults.Take(Fault::HandshakeStuck, &delay)) {
            if (delay == 0)
                handshakeStuck = true;
            packetTakenAt += std::chrono::milliseconds(delay);
        }
        Advance();
    }
    return 0;
}

void CameraFirmware::Advance()
{
    const auto now = Clock::now();
    if (mode != targetMode && now >= modeReadyAt)
        mode = targetMode;
    cci[CciCurrentMode] = mode;
    // Only a camera in GenCP mode takes packets.
    if (packetWaiting && !handshakeStuck && mode == 1 && now >= packetTakenAt)
        TakeOutPacket();
    if (cci[GcprmInHandshake] == 0 && !answers.empty() && answers.front().readyAt <= now) {
        const std::vector<std::uint8_t>& packet = answers.front().packet;
        std::memcpy(&cci[GenCPInBuffer], packet.data(), packet.size());
        SetCciValue(GcprmInSize, 2, static_cast<std::uint32_t>(packet.size()));
        cci[GcprmInHandshake] = 1;
        answers.pop_front();
    }
}

void CameraFirmware::TakeOutPacket()
{
    packetWaiting = false;
    const std::uint32_t size = std::min<std::uint32_t>(CciValue(GcprmOutSize, 2), description.gencpOutBufferSize);
    std::vector<std::uint8_t> command(cci.begin() + GenCPOutBuffer, cci.begin() + GenCPOutBuffer + size);
    cci[GcprmOutHandshake] = 2;
    ++commands;

    std::uint16_t requestId = 0;
    std::vector<std::uint8_t> answer = Serve(command, requestId);
    auto readyAt = Clock::now();
    std::uint64_t pendingMs = 0;
    if (faults.Take(Fault::PendingAck, &pendingMs)) {
        std::vector<std::uint8_t> pending(4, 0);
        Put<std::uint16_t>(pending, 2, static_cast<std::uint16_t>(pendingMs));
        answers.push_back({Answer(0, PendingAck, requestId, pending), readyAt});
        readyAt += std::chrono::milliseconds(pendingMs / 2);
    }
    answers.push_back({answer, readyAt});
}

std::vector<std::uint8_t> CameraFirmware::Answer(std::uint16_t status, std::uint16_t commandId, std::uint16_t requestId,
                                                 const std::vector<std::uint8_t>& payload)
{
    std::vector<std::uint8_t> packet(16 + payload.size(), 0);
    Put<std::uint16_t>(packet, 0, 0x0100);
    Put<std::uint16_t>(packet, 8, status);
    Put<std::uint16_t>(packet, 10, commandId);
    Put<std::uint16_t>(packet, 12, static_cast<std::uint16_t>(payload.size()));
    Put<std::uint16_t>(packet, 14, requestId);
    std::copy(payload.begin(), payload.end(), packet.begin() + 16);
    std::uint32_t crc = GenCPCrc32(packet.data() + 6, packet.size() - 6);
    if (faults.Take(Fault::BadAckCRC))
        crc ^= 0x5A5A5A5Au;
    Put<std::uint32_t>(packet, 2, crc);
    return packet;
}

std::vector<std::uint8_t> CameraFirmware::Serve(const std::vector<std::uint8_t>& command, std::uint16_t& requestId)
{
    const std::uint32_t maxPayload = description.gencpInBufferSize - 16;
    if (command.size() < 16 || Get<std::uint16_t>(command, 0) != 0x0100 ||
        Get<std::uint32_t>(command, 2) != GenCPCrc32(command.data() + 6, command.size() - 6) ||
        16u + Get<std::uint16_t>(command, 12) != command.size())
        return Answer(0x800E, command.size() >= 12 ? Get<std::uint16_t>(command, 10) + 1 : 0,
                      command.size() >= 16 ? Get<std::uint16_t>(command, 14) : 0, {});
    requestId = Get<std::uint16_t>(command, 14);
    const std::uint16_t commandId = Get<std::uint16_t>(command, 10);
    std::uint16_t ackId = static_cast<std::uint16_t>(commandId + 1);
    std::uint16_t status = 0;
    std::vector<std::uint8_t> payload;
    if (commandId == ReadMemCmd && command.size() == 28) {
        const std::uint64_t address = Get<std::uint64_t>(command, 16);
        const std::uint16_t length = Get<std::uint16_t>(command, 26);
        if (length == 0 || length > maxPayload) {
            status = 0x8002;
        } else {
            payload.assign(length, 0);
            status = memory.Read(address, payload.data(), length);
            if (status != 0)
                payload.clear();
            else
                ReadOfDocuments(address, payload);
        }
    } else if (commandId == WriteMemCmd && command.size() > 24) {
        const std::uint64_t address = Get<std::uint64_t>(command, 16);
        const std::size_t length = command.size() - 24;
        status = memory.Write(address, command.data() + 24, length);
        for (const auto& [kept, bytes] : described)
            if (status == 0 && kept < address + length && address < kept + bytes.size())
                keptChanged = true;
        payload.assign(4, 0);
        Put<std::uint16_t>(payload, 2, status == 0 ? static_cast<std::uint16_t>(length) : 0);
    } else {
        status = 0x8001;
        if (commandId != ReadMemCmd && commandId != WriteMemCmd)
            ackId = static_cast<std::uint16_t>(commandId | 1);
    }
    std::uint64_t forced = 0;
    if (faults.Take(Fault::GenCPStatus, &forced)) {
        status = static_cast<std::uint16_t>(forced);
        payload.clear();
    }
    std::uint16_t answeredId = requestId;
    if (faults.Take(Fault::StaleRequestID))
        answeredId = static_cast<std::uint16_t>(requestId - 1);
    return Answer(status, ackId, answeredId, payload);
}

void CameraFirmware::ReadOfDocuments(std::uint64_t address, std::vector<std::uint8_t>& answer)
{
    const std::uint64_t end = address + answer.size();
    for (const DocumentRange& document : documents) {
        const std::uint64_t from = std::max(address, document.address);
        const std::uint64_t to = std::min(end, document.address + document.size);
        if (from >= to)
            continue;
        documentBytesRead += to - from;
        if (from == document.address && faults.Take(Fault::DocumentCorrupt))
            answer[from - address] ^= 0xFF;
    }
}

CameraFirmware::FrameGeometry CameraFirmware::Geometry()
{
    std::lock_guard<std::mutex> lock(mutex);
    return ComputeGeometry();
}

CameraFirmware::FrameGeometry CameraFirmware::ComputeGeometry()
{
    FrameGeometry g{};
    g.width = static_cast<std::uint32_t>(memory.GetValue(Width));
    g.height = static_cast<std::uint32_t>(memory.GetValue(Height));
    g.offsetX = static_cast<std::uint32_t>(memory.GetValue(OffsetX));
    g.offsetY = static_cast<std::uint32_t>(memory.GetValue(OffsetY));
    g.format = &PixelFormatByCode(static_cast<std::uint32_t>(memory.GetValue(PixelFormatRegister)));
    g.pattern = static_cast<std::uint32_t>(memory.GetValue(TestPattern));
    g.imageBytes = PayloadBytes(g.width, g.height, *g.format);
    g.validBytes = description.chunkData ? RoundUp(g.imageBytes, 4) + ChunkTrailerSize + FrameIDChunkSize + ChunkTrailerSize
                                         : g.imageBytes;
    // The host's IPU restrictions decide the geometry the frame is sent as:
    // lines of ipuX bytes, enough of them for leader, image and trailer.
    const std::uint64_t xMin = memory.GetValue(Sirm + 56), xMax = memory.GetValue(Sirm + 60);
    const std::uint64_t xInc = std::max<std::uint64_t>(1, memory.GetValue(Sirm + 64));
    const std::uint64_t yMin = memory.GetValue(Sirm + 68), yInc = std::max<std::uint64_t>(1, memory.GetValue(Sirm + 76));
    const std::uint64_t total = LeaderSize() + g.validBytes + TrailerSize();
    std::uint64_t x = RoundUp(std::max<std::uint64_t>(xMin, (g.width * g.format->bitsPerPixel + 7) / 8), xInc);
    if (x > xMax)
        x = std::max<std::uint64_t>(xInc, xMax / xInc * xInc);
    std::uint64_t y = RoundUp(std::max<std::uint64_t>(yMin, (total + x - 1) / x), yInc);
    g.ipuX = static_cast<std::uint32_t>(x);
    g.ipuY = static_cast<std::uint32_t>(y);
    g.payloadSize = x * y - LeaderSize() - TrailerSize();
    // The host takes the last word of the payload for the length of the last
    // chunk, so chunks fill the payload: the image chunk takes the padding.
    if (description.chunkData)
        g.validBytes = g.payloadSize;
    return g;
}

bool CameraFirmware::IsAcquiring()
{
    std::lock_guard<std::mutex> lock(mutex);
    return acquiring || (memory.GetValue(Sirm + 0) & 1) != 0;
}

double CameraFirmware::FrameRate()
{
    if (description.frameRate <= 0)
        return 0;
    std::lock_guard<std::mutex> lock(mutex);
    return Float(memory.At(AcquisitionFrameRate).bytes);
}

bool CameraFirmware::RenderFrame(std::uint8_t* buffer, std::size_t size, std::uint64_t blockID, std::uint64_t timestamp)
{
    const FrameGeometry g = Geometry();
    const std::uint64_t leaderSize = LeaderSize(), trailerSize = TrailerSize();
    const std::uint64_t needed = leaderSize + g.payloadSize + trailerSize;
    std::vector<std::uint8_t> scratch;
    std::uint8_t* frame = buffer;
    if (size < needed) {
        scratch.assign(needed, 0);
        frame = scratch.data();
    }
    if (leaderSize) {
        qel_frame_leader leader{};
        leader.magic_key = QEL_LEADER_MAGIC;
        leader.leader_size = static_cast<std::uint16_t>(leaderSize);
        leader.block_id = blockID;
        leader.payload_type = description.chunkData ? ChunkPayloadType : 1;
        leader.timestamp = timestamp;
        leader.pixel_format = g.format->pfnc;
        leader.size_x = g.width;
        leader.size_y = g.height;
        leader.offset_x = g.offsetX;
        leader.offset_y = g.offsetY;
        std::memcpy(frame, &leader, sizeof leader);
    }
    std::uint8_t* const payload = frame + leaderSize;
    if (!description.preparedFrames || frame != buffer || !ImagePrepared(frame, g)) {
        RenderPattern(payload, g.width, g.height, *g.format, description.preparedFrames ? 0 : blockID, g.pattern);
        std::memset(payload + g.imageBytes, 0, g.payloadSize - g.imageBytes);
    }
    if (description.chunkData) {
        const std::uint64_t imageChunk = g.payloadSize - ChunkTrailerSize - FrameIDChunkSize - ChunkTrailerSize;
        auto putWord = [payload](std::uint64_t at, std::uint32_t word) { std::memcpy(payload + at, &word, 4); };
        putWord(imageChunk, ImageChunkID);
        putWord(imageChunk + 4, static_cast<std::uint32_t>(imageChunk));
        std::memcpy(payload + imageChunk + ChunkTrailerSize, &blockID, sizeof blockID);
        putWord(imageChunk + ChunkTrailerSize + FrameIDChunkSize, FrameIDChunkID);
        putWord(imageChunk + ChunkTrailerSize + FrameIDChunkSize + 4, static_cast<std::uint32_t>(FrameIDChunkSize));
    }
    if (trailerSize) {
        qel_frame_trailer trailer{};
        trailer.magic_key = QEL_TRAILER_MAGIC;
        trailer.trailer_size = static_cast<std::uint16_t>(trailerSize);
        trailer.block_id = blockID;
        trailer.valid_payload_size = g.validBytes;
        trailer.delivered_size_y = g.height;
        std::memcpy(frame + leaderSize + g.payloadSize, &trailer, sizeof trailer);
        if (description.chunkData)
            std::memcpy(frame + leaderSize + g.payloadSize + sizeof trailer, &ChunkLayoutID, 4);
    }
    if (frame != buffer) {
        std::memcpy(buffer, frame, size);
        return false;
    }
    return true;
}

bool CameraFirmware::ImagePrepared(const std::uint8_t* frame, const FrameGeometry& g)
{
    const std::uint64_t geometry = (std::uint64_t{g.width} << 40) ^ (std::uint64_t{g.height} << 20) ^ g.payloadSize ^
                                   (std::uint64_t{g.format->pfnc} << 8);
    std::lock_guard<std::mutex> lock(preparedMutex);
    if (geometry != preparedGeometry) {
        preparedBuffers.clear();
        preparedGeometry = geometry;
    }
    return !preparedBuffers.insert(frame).second;
}

void CameraFirmware::ForgetPreparedBuffers()
{
    std::lock_guard<std::mutex> lock(preparedMutex);
    preparedBuffers.clear();
}

std::uint64_t CameraFirmware::LeaderSize() const { return description.leaderTrailer ? MaxLeaderSize : 0; }
std::uint64_t CameraFirmware::TrailerSize() const
{
    return description.leaderTrailer ? MaxTrailerSize + (description.chunkData ? 4 : 0) : 0;
}

std::uint64_t CameraFirmware::ReadValue(std::uint64_t address)
{
    std::lock_guard<std::mutex> lock(mutex);
    return memory.GetValue(address);
}

void CameraFirmware::WriteValue(std::uint64_t address, std::uint64_t value)
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::uint8_t> bytes(memory.At(address).bytes.size());
    for (std::size_t i = 0; i < bytes.size() && i < 8; ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    if (memory.Write(address, bytes.data(), bytes.size()) != MemoryMap::Success)
        throw std::invalid_argument("the camera refused the value");
}

std::uint8_t CameraFirmware::GetDeviceMode()
{
    std::lock_guard<std::mutex> lock(mutex);
    Advance();
    return mode;
}

void CameraFirmware::StartAcquisition()
{
    std::lock_guard<std::mutex> lock(mutex);
    acquiring = true;
}

void CameraFirmware::StopAcquisition()
{
    std::lock_guard<std::mutex> lock(mutex);
    acquiring = false;
}

std::uint64_t CameraFirmware::GetCommandCount()
{
    std::lock_guard<std::mutex> lock(mutex);
    return commands;
}

} }
