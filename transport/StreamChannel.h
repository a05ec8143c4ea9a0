#pragma once

#include "framework/BasicBufferQueue.h"
#include "framework/BasicEventQueue.h"
#include "framework/EventRecords.h"
#include "support/BasicLockable.h"
#include "support/CallGate.h"
#include "support/Condition.h"
#include "support/Lockable.h"
#include "support/Signal.h"
#include "support/TrackableObject.h"
#include "transport/Endpoint.h"
#include "transport/FrameInfo.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace QEL {
namespace LibCSI { class EndpointHandler; }
namespace TransportLayer {

class ControlChannel;

// The link between a consumer's buffer and its frame transfer.
class StreamDataBlock : public virtual System::Object {
public:
    std::shared_ptr<Base::BufferInfos> infos;
    bool newData = false;
    bool acquiring = false;
    frame_handle_t* transferHandle = nullptr;
    std::shared_ptr<Base::Buffer> buffer;
    // Frame memory that libcsi allocated (DSAllocAndAnnounceBuffer): it goes with the revoke.
    bool producerMemory = false;
    // The handler of this block's frames in stream round `handlerRound`.
    LibCSI::StreamFrames::FrameHandler handler;
    std::uint64_t handlerRound = 0;
};

// Joins a data stream's buffer queue to the camera's stream: settles the
// frame size, tells the camera the data identifier, keeps the endpoint
// supplied with buffers and turns finished frames into buffer infos. It has no
// thread: it reacts to buffers queued by the consumer and frames finished by
// libcsi's frame callback thread. Lock order: buffer queue, channel, control channel.
// Every public method holds the channel's mutex for its whole call;
// StartStreaming, StopStreaming, RevokeBuffer(s), a finished frame and the
// queue's input signal take the buffer queue's before it, and whatever asks the
// camera (StartStreaming, GetPayloadSize, GetPayloadSizeAlignment) the control
// channel's after it.
class StreamChannel : public Tools::TrackableObject<Tools::BasicLockable<System::Lockable>> {
public:
    enum State : std::uint32_t { Idle = 0, Streaming = 1, Stopping = 2, Finishing = 3, Aborted = 5 };
    enum PayloadSizeMode : std::uint32_t { Auto = 0, PayloadSize = 1, Manual = 2 };
    using BufferQueue = Base::BasicBufferQueue;
    using ErrorQueue = Base::BasicEventQueue<Base::ErrorData>;

    struct PlanEntry {
        enum Kind : std::uint32_t { Leader = 0, Payload = 1, FirstFinal = 2, SecondFinal = 3, Trailer = 4 };
        Kind kind;
        std::uint64_t offset;
        std::uint64_t size;
    };

    static std::shared_ptr<StreamChannel> Create(const std::shared_ptr<ControlChannel>& control,
                                                 const std::shared_ptr<LibCSI::EndpointHandler>& handler,
                                                 std::int32_t recordFrameStartFrameID,
                                                 std::int32_t recordFrameStopFrameID);
    StreamChannel(const std::shared_ptr<ControlChannel>& control,
                  const std::shared_ptr<LibCSI::EndpointHandler>& handler, std::int32_t recordFrameStartFrameID,
                  std::int32_t recordFrameStopFrameID);
    ~StreamChannel() override;

    void StartStreaming(std::uint32_t driverBuffers, std::uint64_t imagesToAcquire,
                        const std::shared_ptr<BufferQueue>& bufferQueue, const std::shared_ptr<ErrorQueue>& errorQueue,
                        std::uint32_t payloadSizeMode, std::uint64_t manualPayloadSize, bool singleFinalTransfer);
    // True when a stream was running. `deadline` is kept for the interface and
    // read by nothing: libcsi's stream-off waits its own fixed time.
    bool StopStreaming(System::TimePoint deadline);
    bool IsStreaming() const;
    State GetState() const;

    // The three payload sizes. The stream's: what each frame of the running
    // stream fills, settled at its start by the payload size mode (auto: the
    // smallest announced buffer; payload size: the camera's; manual: the
    // manual size); only while streaming.
    std::uint64_t GetStreamPayloadSize() const;
    // The camera's, as its registers give it now.
    std::uint64_t GetPayloadSize();
    // The alignment the camera asks of a manual size: 2 to its minimum alignment exponent.
    std::uint64_t GetPayloadSizeAlignment();
    std::uint32_t GetBufferAnnounceMinimum() const { return minimumBuffers; }
    const Base::SupportedBufferInfos& GetSupportedBufferInfos() const;
    std::vector<PlanEntry> GetTransferPlan() const;

    // A consumer's buffer made known to the transfers.
    void AnnounceBuffer(const std::shared_ptr<Base::Buffer>& buffer);
    // A revoked buffer's frame goes back to libcsi, so that its address can
    // come back as a buffer of another size. True when the memory was
    // libcsi's and went with the frame: its address must not be handed out.
    bool RevokeBuffer(const void* base);
    // Every buffer's frame goes back to libcsi, as when its data stream
    // closes: nothing of the stream's buffers stays below the queue.
    void RevokeBuffers();
    // Frame memory of libcsi's own for `block`; false when libcsi refused.
    bool AllocateBuffer(void** base, std::size_t size, const std::shared_ptr<StreamDataBlock>& block);

    std::uint64_t GetDeliveredFrames();
    std::uint64_t GetCRCErrorFrames();
    std::uint64_t GetUnderrunCount();
    std::uint64_t GetIncompleteFrames();
    double GetFrameRate();
    std::uint32_t GetMaxTransferSize() const;
    std::uint32_t GetMaxTransferCount() const;

    // The CSI data identifier that host and camera share: 0x31 when both
    // have it, else the lowest common one.
    static std::uint8_t ChooseDataIdentifier(const std::set<std::uint32_t>& host,
                                             const std::set<std::uint32_t>& device);
    // `value` rounded to a multiple of `alignment` (up or down): an alignment of
    // 0 gives 0, the only multiple of 0; rounding up past 2^64 throws.
    static std::uint64_t AlignSize(std::uint64_t value, std::uint64_t alignment, bool up);

private:
    const LibCSI::StreamFrames::FrameHandler& FrameHandler(const std::shared_ptr<StreamDataBlock>& block);
    void SetState(State newState);
    void RefreshIPU();
    std::shared_ptr<StreamDataBlock> BlockOf(const std::shared_ptr<Base::BasicBuffer>& buffer);
    void SubmitBuffers();
    void SubmitOrAbort();
    void OnNewBuffer();
    void OnFrameFinished(const std::weak_ptr<StreamDataBlock>& block, std::uint64_t round,
                         const LibCSI::frame_info& frame);
    void FinishFrame(StreamDataBlock& block, const LibCSI::frame_info& frame);
    void Abort(const std::string& text, GC_ERROR code);
    void DisconnectInput();
    void ReturnUnfilledBuffers();
    std::uint64_t DeterminePayloadSize(std::uint32_t mode, std::uint64_t manual);
    std::vector<PlanEntry> PlanTransfers(std::uint64_t size, bool singleFinalTransfer);
    void SetUpEmulation();
    std::uint32_t FrameSizeFor(const Base::BasicBuffer& buffer) const;

    std::shared_ptr<Tools::CallGate> frameGate;
    // Rises with every start: a handler made for an earlier stream is recognised by it.
    std::uint64_t round = 0;
    const std::uint32_t streamIndex = 0;
    std::shared_ptr<ControlChannel> control;
    std::shared_ptr<LibCSI::EndpointHandler> handler;
    std::shared_ptr<BufferQueue> bufferQueue;
    std::shared_ptr<ErrorQueue> errorQueue;
    std::uint64_t imagesToAcquire = 0; // kept as the consumer gave it; read by nothing: a stream runs until stopped
    std::uint64_t streamPayloadSize = 0;
    std::vector<PlanEntry> plan;
    Tools::Connection inputConnection;
    System::Condition condition;
    State state = Idle;
    // Kept from the settings; read by nothing.
    std::int32_t recordFrameStartFrameID;
    std::int32_t recordFrameStopFrameID;
    std::uint32_t m_nMaxLeaderSize = 0;
    std::uint32_t m_nMaxTrailerSize = 0;
    std::uint32_t minimumBuffers = 0;
    std::uint32_t ipuX = 0, ipuY = 0;
    bool ipuDirty = true;
    std::uint64_t cameraPayloadSize = 0;
    std::map<const void*, std::shared_ptr<StreamDataBlock>> blocks;
};

} }
