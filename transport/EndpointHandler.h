#pragma once

#include "support/Condition.h"
#include "support/Mutex.h"
#include "base/Object.h"
#include "transport/Endpoint.h"
#include "transport/Transfer.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace QEL { namespace LibCSI {

class CSIInfo;

// The checked front of an endpoint that the channels hold: it bounds the
// transfers in flight and turns libcsi's status words into transfer results.
class EndpointHandler : public virtual System::Object, public std::enable_shared_from_this<EndpointHandler> {
public:
    using Callback = std::function<void(TransportLayer::TransferResult result, std::int32_t transferred)>;

    static std::shared_ptr<EndpointHandler> Create(const std::shared_ptr<Endpoint>& endpoint,
                                                   std::uint32_t maxTransferCount, std::uint32_t maxTransferSize,
                                                   std::int32_t channel);
    EndpointHandler(const std::shared_ptr<Endpoint>& endpoint, std::uint32_t maxTransferCount,
                    std::uint32_t maxTransferSize, std::int32_t channel);
    ~EndpointHandler() override;

    virtual void Submit(void* buffer, std::size_t size, const Callback& callback);
    virtual void AbortTransfers();
    // The stream: what the endpoint does with frames, checked for a running handler.
    virtual std::int32_t StartStreaming(std::uint8_t dataIdentifier);
    virtual std::int32_t StopStreaming();
    virtual void* AllocateBuffer(std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size, std::uint32_t leaderSize,
                                 std::uint32_t trailerSize, StreamFrames::FrameHandler callback);
    virtual frame_handle_t* AnnounceBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                           std::uint32_t leaderSize, std::uint32_t trailerSize,
                                           StreamFrames::FrameHandler callback);
    virtual std::int32_t QueueBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                     std::uint32_t leaderSize, std::uint32_t trailerSize,
                                     StreamFrames::FrameHandler callback);
    virtual std::int32_t FlushBuffers();
    virtual void RevokeBuffers();
    virtual std::int32_t RevokeBuffer(const void* payload);
    virtual void SetEmulateLeaderTrailer(bool emulate);
    virtual void SetLeaderTrailerParam(const LeaderTrailerParameters& parameters);

    virtual void SubmitEvent(void* buffer, std::size_t size, const Callback& callback);
    virtual void AbortEvents();

    virtual std::uint32_t GetMaxTransferCount() const { return maxTransferCount; }
    virtual std::uint32_t GetMaxTransferSize() const { return maxTransferSize; }
    virtual std::uint32_t GetMaxPacketSize() const { return maxPacketSize; }
    // 0 in, 1 out.
    virtual std::int32_t GetDirection() const { return direction; }

    virtual bool GetDriverVersion(std::string& version);
    virtual bool GetLibraryVersion(std::string& version);
    virtual bool GetApiVersion(std::string& version);
    virtual bool GetCSIConfig(std::uint8_t& laneCount, std::uint32_t& clockFrequency);
    virtual bool SetCSIConfig(std::uint8_t laneCount, std::uint32_t clockFrequency);
    virtual std::set<std::uint8_t> GetSupportedLaneCounts();
    // Lane count to the clock range, in Hz, that the host allows with it.
    virtual std::map<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> GetClockRanges();
    virtual std::set<std::uint32_t> GetSupportedDataIdentifiers();
    virtual bool GetIPURestrictions(std::uint32_t& xMin, std::uint32_t& xMax, std::uint32_t& xInc,
                                    std::uint32_t& yMin, std::uint32_t& yMax, std::uint32_t& yInc,
                                    std::uint32_t& alignment);
    virtual std::uint32_t GetMinAnnouncedFrames();
    virtual std::uint32_t GetLinkSpeed();
    virtual std::uint64_t GetDeliveredFrames();
    virtual std::uint64_t GetCRCErrorFrames();
    virtual std::uint64_t GetUnderrunCount();
    virtual std::uint64_t GetIncompleteFrames();
    virtual double GetFrameRate();
    virtual void ResetStatistics();
    virtual std::int32_t ResetDevice();

    // The identity of the camera behind the endpoint.
    virtual std::string GetDeviceGuid();
    virtual std::string GetManufacturerName();
    virtual std::string GetModelName();
    virtual std::string GetSerialNumber();
    virtual std::string GetPortID();

    virtual void ResetPipe() {}
    virtual void ClearPipe();
    virtual bool IsStalled() const { return true; }
    virtual bool HasTransferSlot() const;

    const std::shared_ptr<Endpoint>& GetEndpoint() const { return endpoint; }

protected:
    // A handler without an endpoint, for stand-ins that override what they use.
    EndpointHandler(std::uint32_t maxTransferCount, std::uint32_t maxTransferSize, std::uint32_t maxPacketSize);

private:
    void CheckRunning() const;
    std::shared_ptr<CSIInfo> GetInfo();
    static TransportLayer::TransferResult ResultOf(std::uint32_t status);

    mutable System::Mutex mutex;
    System::Condition condition;
    bool running = false;
    std::shared_ptr<Endpoint> endpoint;
    std::uint32_t maxTransferCount;
    std::uint32_t maxTransferSize;
    std::uint32_t maxPacketSize = 0;
    std::int32_t activeTransfers = 0;
    std::int32_t direction = 0;
};

} }
