#pragma once

#include "gencp/CCIPacket.h"
#include "gencp/ControlChannel.h"

#include <cstdint>
#include <memory>
#include <set>

namespace QEL {
class Settings;
namespace LibCSI { class EndpointHandler; }
namespace TransportLayer {

// The control channel of one opened camera over its control interface (CCI):
// GenCP packets with preamble and CRC32 through the control out and control
// in endpoints, the technology specific registers (SBRM, SIRM), and the link
// settings applied at open.
class ControlChannel : public Base::GenCP::ControlChannel {
public:
    using Packet = Base::GenCP::CCIPacket;

    static std::shared_ptr<ControlChannel> Create(const std::shared_ptr<LibCSI::EndpointHandler>& inHandler,
                                                  const std::shared_ptr<LibCSI::EndpointHandler>& outHandler,
                                                  const std::shared_ptr<const Settings>& settings,
                                                  std::uint32_t extraReceiveTimeout, std::uint32_t sendTimeout,
                                                  bool readOnly);
    explicit ControlChannel(bool readOnly);
    ~ControlChannel() override;

    std::size_t GetMaxCommandPayload() override;
    std::size_t GetMaxAcknowledgePayload() override;
    std::shared_ptr<Base::GenCP::Packet> CreatePacket(std::size_t payloadSize) override;
    void SendPacket(const std::shared_ptr<Base::GenCP::Packet>& packet) override;
    std::shared_ptr<Base::GenCP::Packet> ReceivePacket(std::uint32_t timeoutMs, std::size_t expectedBytes) override;
    void Flush() override;
    Base::GenCP::ManifestEntry GetManifestEntry(std::uint64_t index) override;

    // Bytes per second of the control link, from libcsi's speed code.
    std::uint64_t GetCurrentSpeed();
    std::uint64_t GetLinkBytesPerSecond() const { return linkBytesPerSecond; }

    // SBRM.
    std::uint32_t GetSBRMCapability();
    std::uint32_t GetStreamChannelCount();
    std::set<std::uint8_t> GetDeviceLaneCounts();
    std::uint8_t GetCurrentLaneCount();
    std::uint32_t GetClockFrequency();
    std::uint64_t GetSIRMAddress(std::uint32_t streamIndex);
    // This transport keeps camera events off; the event channel asks these.
    virtual bool GetEventSupport() const { return false; }
    virtual std::uint32_t GetMaxEventTransferLength() const { return 0; }
    virtual bool IsEventEnabled() { return false; }
    std::uint64_t GetEIRMAddress() const;
    virtual void EnableEvents(bool enable);

    // SIRM.
    void EnableStream(std::uint32_t streamIndex, bool enable);
    void SetIPURestrictions(std::uint32_t streamIndex, const std::uint32_t (&restrictions)[6]);
    bool IsStreamEnabled(std::uint32_t streamIndex);
    std::uint32_t GetMaxLeaderSize(std::uint32_t streamIndex);
    std::uint64_t GetPayloadSize(std::uint32_t streamIndex);
    std::uint32_t GetMaxTrailerSize(std::uint32_t streamIndex);
    // The identifiers of the camera's four inquiry words: bit n of word w is identifier 64 w + n.
    std::set<std::uint32_t> GetDeviceDataIdentifiers(std::uint32_t streamIndex);
    std::uint8_t GetDataIdentifier(std::uint32_t streamIndex);
    void SetDataIdentifier(std::uint32_t streamIndex, std::uint8_t identifier);
    std::uint32_t GetIPUX(std::uint32_t streamIndex);
    std::uint32_t GetIPUY(std::uint32_t streamIndex);
    std::uint32_t GetImageSizeX(std::uint32_t streamIndex);
    std::uint32_t GetImageSizeY(std::uint32_t streamIndex);
    std::uint32_t GetImageOffsetX(std::uint32_t streamIndex);
    std::uint32_t GetImageOffsetY(std::uint32_t streamIndex);
    std::uint16_t GetImagePaddingX(std::uint32_t streamIndex);
    std::uint32_t GetImagePixelFormat(std::uint32_t streamIndex);
    std::uint16_t GetImagePayloadType(std::uint32_t streamIndex);
    std::uint64_t GetValidPayloadSize(std::uint32_t streamIndex);
    std::uint32_t GetChunkLayoutID(std::uint32_t streamIndex);
    // The data identifiers the host (libcsi) and the camera (SIRM) support.
    void GetCSIDataIdentifiers(std::uint32_t streamIndex, std::set<std::uint32_t>& host,
                               std::set<std::uint32_t>& device);
    // Restarts the camera: from then on it can only be closed.
    void ResetDevice();
    // The largest GenCP packet and how many the control endpoint carries at once.
    void GetPacketInfo(std::uint32_t& size, std::uint32_t& count);
    // Versions of the CSI-2 driver, its interface and libcsi; empty when unknown.
    std::string GetDriverVersion();
    std::string GetDriverInterfaceVersion();
    std::string GetLibcsiVersion();
    // log2 of the frame buffer alignment; 1 when the driver gives none.
    std::uint32_t GetMinimumAlignment();

    static constexpr std::uint64_t AsicAddressRegister = 0xF0000100;
    static constexpr std::uint64_t AsicDataRegister = 0xF0000104;
    std::uint32_t ReadAsicRegister(std::uint32_t address);
    void WriteAsicRegister(std::uint32_t address, std::uint32_t value);

private:
    void Init(const std::shared_ptr<LibCSI::EndpointHandler>& inHandler,
              const std::shared_ptr<LibCSI::EndpointHandler>& outHandler,
              const std::shared_ptr<const Settings>& settings, std::uint32_t extraReceiveTimeout,
              std::uint32_t sendTimeout);
    void ApplyLinkSettings(const std::shared_ptr<const Settings>& settings);
    void DumpAndPatchAsic(const std::shared_ptr<const Settings>& settings);
    std::uint32_t TransferTime(std::size_t bytes) const;
    // The link's bytes per second for libcsi's speed code; false for an unknown code.
    static bool BytesPerSecondOfSpeedCode(std::uint32_t code, std::uint64_t& bytesPerSecond);
    std::uint32_t CachedSBRM32(std::uint64_t flag, std::uint32_t& cache, std::uint64_t offset);

    std::shared_ptr<LibCSI::EndpointHandler> inHandler, outHandler;
    std::uint64_t linkBytesPerSecond = 0x3000;
    std::uint32_t extraReceiveTimeout = 0;
    std::uint32_t sendTimeout = 0;
    std::uint32_t receiveBufferSize = 0;
    std::uint64_t cachedFlags = 0;
    std::uint32_t maxCommandPacket = 0;
    std::uint32_t maxAcknowledgePacket = 0;
    std::uint32_t sbrmCapability = 0;
    std::uint32_t streamChannelCount = 0;
    std::uint64_t sirmAddress = 0;
    std::uint32_t sirmLength = 0;
    std::uint32_t deviceLaneMask = 0;
    std::uint64_t currentSpeed = 0;
};

} }
