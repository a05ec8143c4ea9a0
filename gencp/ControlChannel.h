#pragma once

#include "gencp/Packet.h"
#include "support/BasicLockable.h"
#include "support/Condition.h"
#include "support/Version.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace QEL { namespace Base { namespace GenCP {

// One file of the device's manifest table.
struct ManifestEntry {
    Tools::Version fileVersion{std::uint64_t{0}, std::uint64_t{0}, std::uint64_t{0}};
    Tools::Version schemaVersion{std::uint64_t{0}, std::uint64_t{0}};
    std::uint32_t fileType = 0;
    std::uint64_t address = 0;
    std::uint64_t size = 0;
    // Empty when the device gives no hash.
    std::vector<std::uint8_t> sha1;
};

// The transport-free half of a camera's register channel: memory reads and
// writes as GenCP commands with their attempts and pending acknowledges, and
// the bootstrap registers (ABRM). A transport supplies and moves the packets.
class ControlChannel : public Tools::BasicLockable<QEL::System::Lockable> {
public:
    explicit ControlChannel(bool readOnly);
    ~ControlChannel() override;

    virtual std::size_t GetMaxCommandPayload() = 0;
    virtual std::size_t GetMaxAcknowledgePayload() = 0;
    virtual std::shared_ptr<Packet> CreatePacket(std::size_t payloadSize) = 0;
    virtual void SendPacket(const std::shared_ptr<Packet>& packet) = 0;
    // An empty pointer when nothing came within the time.
    virtual std::shared_ptr<Packet> ReceivePacket(std::uint32_t timeoutMs, std::size_t expectedBytes) = 0;
    virtual void Flush() = 0;
    virtual ManifestEntry GetManifestEntry(std::uint64_t index);
    // Order of the values in packets and in the device's memory: 0 little endian.
    virtual std::int32_t GetByteOrder() const { return 0; }

    bool IsReadOnly() const { return readOnly; }

    // Any amount, cut into commands; the forms without a time-out wait the
    // device's maximum response time.
    void ReadMemory(std::uint64_t address, void* data, std::size_t size, std::uint32_t timeoutMs);
    void ReadMemory(std::uint64_t address, void* data, std::size_t size);
    void WriteMemory(std::uint64_t address, const void* data, std::size_t size, std::uint32_t timeoutMs);
    void WriteMemory(std::uint64_t address, const void* data, std::size_t size);

    std::uint8_t ReadRegister8(std::uint64_t address);
    std::uint16_t ReadRegister16(std::uint64_t address);
    std::uint32_t ReadRegister32(std::uint64_t address);
    std::uint64_t ReadRegister64(std::uint64_t address);
    void WriteRegister32(std::uint64_t address, std::uint32_t value);
    void WriteRegister64(std::uint64_t address, std::uint64_t value);
    // Strings in the device's encoding, as UTF-8 here.
    std::string ReadString(std::uint64_t address, std::size_t size);
    void WriteString(std::uint64_t address, std::size_t size, const std::string& text);

    // The bootstrap registers.
    Tools::Version GetVersion();
    std::string GetManufacturerName();
    std::string GetModelName();
    std::string GetFamilyName();
    std::string GetDeviceVersion();
    std::string GetManufacturerInfo();
    std::string GetSerialNumber();
    std::string GetUserDefinedName();
    void SetUserDefinedName(const std::string& name);
    std::uint64_t GetDeviceCapability();
    std::uint32_t GetMaxDeviceResponseTime();
    std::uint64_t GetManifestTableAddress();
    std::uint64_t GetSBRMAddress();
    std::uint64_t GetDeviceConfiguration();
    void SetDeviceConfiguration(std::uint64_t value);
    std::uint32_t GetHeartbeatTimeout();
    void SetHeartbeatTimeout(std::uint32_t milliseconds);
    std::uint32_t GetMessageChannelId();
    std::uint64_t GetTimestamp();
    void LatchTimestamp();
    std::uint64_t GetTimestampIncrement();
    std::uint32_t GetAccessPrivilege();
    void SetAccessPrivilege(std::uint32_t value);
    // 0 little endian, 1 big endian.
    std::int32_t GetImplementationByteOrder();
    std::uint64_t GetManifestEntryCount();

    bool GetCapabilityUserDefinedName();
    bool GetCapabilityAccessPrivilege();
    bool GetCapabilityMessageChannel();
    bool GetCapabilityTimestamp();
    std::int32_t GetCapabilityStringEncoding();
    bool GetCapabilityFamilyName();
    bool GetCapabilitySBRM();
    bool GetCapabilityByteOrder();
    bool GetCapabilityWrittenLength();

    // The heartbeat keeps the device's access privilege while the host holds
    // it. Nothing in this producer starts it.
    void StartHeartbeat();
    void StopHeartbeat();
    void PauseHeartbeat();
    void ResumeHeartbeat();
    bool IsHeartbeatStopped() const;
    bool IsHeartbeatPaused() const;
    void SetHeartbeatInterval(std::uint32_t milliseconds);
    std::uint32_t GetHeartbeatInterval() const;
    bool IsConnected() const;

    static constexpr std::size_t StringRegisterSize = 64;

private:
    enum HeartbeatState : std::int32_t { Idle = 0, Running = 1, StopRequested = 2, Paused = 3 };

    template <class Ack>
    std::shared_ptr<Ack> Execute(const std::shared_ptr<Packet>& packet, std::uint32_t timeoutMs,
                                 std::size_t expectedBytes);
    void ReadBlock(std::uint64_t address, std::uint8_t* data, std::size_t size, std::uint32_t timeoutMs);
    void WriteBlock(std::uint64_t address, const std::uint8_t* data, std::size_t size, std::uint32_t timeoutMs);
    std::uint64_t ReadValue(std::uint64_t address, std::size_t width);
    void WriteValue(std::uint64_t address, std::uint64_t value, std::size_t width);
    std::string CachedString(std::uint64_t flag, std::string& cache, std::uint64_t address);
    std::uint64_t CachedValue(std::uint64_t flag, std::uint64_t& cache, std::uint64_t address);
    bool CapabilityBit(unsigned bit);
    void RequireAccessPrivilege();
    void HeartbeatLoop();
    void HeartbeatBody();
    void EndHeartbeatThreadState();
    void EndHeartbeatThread();
    void StopHeartbeatThread();

    const bool readOnly;
    std::uint64_t cachedFlags = 0;
    std::uint32_t version = 0;
    std::uint64_t capability = 0;
    std::uint64_t maxDeviceResponseTime = 0;
    std::uint64_t manifestAddress = 0;
    std::uint64_t sbrmAddress = 0;
    std::vector<ManifestEntry> manifest;
    std::string manufacturer, model, family, deviceVersion, manufacturerInfo, serialNumber;

    std::shared_ptr<QEL::System::Mutex> channelMutex;
    QEL::System::Condition condition;
    HeartbeatState heartbeatState = Idle;
    bool connected = true;
    bool heartbeatThreadRunning = false;
    bool heartbeatDue = true;
    QEL::System::TimePoint lastAcknowledge = QEL::System::TimePoint::max();
    QEL::System::TimePoint nextHeartbeat = QEL::System::TimePoint::max();
    std::uint32_t heartbeatInterval = 2000;
    std::uint16_t requestId = 0;
    std::thread heartbeatThread;
};

// ABRM addresses.
namespace ABRM {
constexpr std::uint64_t GenCPVersion = 0x0000;
constexpr std::uint64_t ManufacturerName = 0x0004;
constexpr std::uint64_t ModelName = 0x0044;
constexpr std::uint64_t FamilyName = 0x0084;
constexpr std::uint64_t DeviceVersion = 0x00C4;
constexpr std::uint64_t ManufacturerInfo = 0x0104;
constexpr std::uint64_t SerialNumber = 0x0144;
constexpr std::uint64_t UserDefinedName = 0x0184;
constexpr std::uint64_t DeviceCapability = 0x01C4;
constexpr std::uint64_t MaxDeviceResponseTime = 0x01CC;
constexpr std::uint64_t ManifestTableAddress = 0x01D0;
constexpr std::uint64_t SBRMAddress = 0x01D8;
constexpr std::uint64_t DeviceConfiguration = 0x01E0;
constexpr std::uint64_t HeartbeatTimeout = 0x01E8;
constexpr std::uint64_t MessageChannelId = 0x01EC;
constexpr std::uint64_t Timestamp = 0x01F0;
constexpr std::uint64_t TimestampLatch = 0x01F8;
constexpr std::uint64_t TimestampIncrement = 0x01FC;
constexpr std::uint64_t AccessPrivilege = 0x0204;
constexpr std::uint64_t ImplementationByteOrder = 0x020C;
}

} } }
