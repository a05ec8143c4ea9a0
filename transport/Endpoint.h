#pragma once

#include "support/CallGate.h"
#include "support/Condition.h"
#include "support/Mutex.h"
#include "base/Object.h"
#include "transport/ChannelTransfer.h"
#include "transport/Descriptors.h"
#include "transport/FrameInfo.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <vector>
#include <memory>
#include <thread>

namespace QEL { namespace LibCSI {

class Device;
class LibCSIWrapper_Impl;

// A numbered channel of one opened camera: 0 control out, 1 control in,
// 2 stream, 3 event, 4 and 5 debug. Control traffic is served by a
// synchronous libcsi call in the caller's thread; the endpoint's own thread
// only hands the completions on, one at a time and in order.
class Endpoint : public virtual System::Object, public std::enable_shared_from_this<Endpoint> {
public:
    // libcsi's status word and the bytes done.
    using Completion = std::function<void(std::uint32_t status, std::uint32_t bytesDone)>;

    static std::shared_ptr<Endpoint> Open(const std::shared_ptr<Device>& device, std::uint32_t number);
    ~Endpoint() override;

    std::uint32_t GetNumber() const { return number; }
    const std::shared_ptr<LibCSIWrapper_Impl>& GetWrapper() const { return wrapper; }
    const std::shared_ptr<Device>& GetDevice() const { return device; }
    bool IsRunning() const;
    // Packets of the camera's GenCP window.
    std::uint32_t GetMaxPacketSize() const;

    void Submit(void* buffer, std::size_t size, Completion completion);
    // Event buffers wait here until the camera sends an event.
    void SubmitEvent(void* buffer, std::size_t size, Completion completion);
    void AbortEvents();
    void EnqueueEvent(const void* data, std::size_t size);

    // Frames. The callback gets each finished frame, on libcsi's frame
    // callback thread and without the endpoint's locks.
    using FrameCallback = std::function<void(const frame_info& frame)>;
    // The handler of a buffer's frames, kept by every queueing of the buffer:
    // shared, so that a queueing copies a pointer and allocates nothing.
    using FrameHandler = std::shared_ptr<const FrameCallback>;
    // A frame buffer of libcsi's own; its payload address, or null when libcsi refused.
    void* AllocateBuffer(std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size, std::uint32_t leaderSize,
                         std::uint32_t trailerSize, FrameHandler callback);
    // The caller's payload memory as a frame buffer; the handle, or null when
    // libcsi refused. A payload announced before keeps its first handle.
    frame_handle_t* AnnounceBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                   std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback);
    // Hands the frame buffer of `payload` to the driver, announcing it first
    // if needed; libcsi's result (0 success).
    std::int32_t QueueBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                             std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback);
    std::int32_t FlushBuffers();
    // Revokes every frame buffer; each buffer's callback hears of it with RESULT_Unused.
    void RevokeBuffers();
    // Gives one frame back to libcsi (its memory too, when libcsi allocated it);
    // the address may then come back as another buffer.
    std::int32_t RevokeBuffer(const void* payload);
    std::size_t GetBufferCount() const;
    void SetEmulateLeaderTrailer(bool emulate);
    void SetLeaderTrailerParam(const LeaderTrailerParameters& parameters);
    // Starts libcsi's stream with the CSI data identifier.
    std::int32_t StartStreaming(std::uint8_t dataIdentifier);
    std::int32_t StopStreaming();

private:
    struct DataTransfer {
        enum Origin : std::int32_t { Allocated = 0, Announced = 1 };
        std::uint64_t userValue = 0;
        std::uint32_t status = 0;
        Origin origin = Announced;
        FrameRecord record;
        FrameHandler callback;
        // One per queueing, its record handed to libcsi as the frame's context:
        // a frame libcsi gives back late still reaches the handler it was queued
        // with, which knows whether its stream is still the current one.
        struct Queueing {
            FrameRecord record;
            FrameHandler callback;
            std::uint64_t stops = 0;
        };
        // A list, so that records stay where libcsi was told they are; done
        // ones move to the spares and are used again, so a queueing allocates
        // nothing once a buffer has gone round.
        std::list<Queueing> queueings, spareQueueings;
        void Retire(std::list<Queueing>::iterator queueing);
        // Where the camera's leader and trailer land for a buffer of the caller.
        std::vector<std::uint8_t> leader, trailer;
        // Frame callbacks reading the frame's memory (leader, trailer, the
        // payload's last word) at this moment: a revoke waits for them
        // before libcsi frees the memory or the caller takes it back.
        std::atomic<std::uint32_t> readers{0};
        void AwaitReaders() const;
    };
    std::shared_ptr<DataTransfer> MakeDataTransfer(DataTransfer::Origin origin, void* payload, std::size_t size,
                                                   std::uint32_t leaderSize, std::uint32_t trailerSize,
                                                   FrameHandler callback);
    std::int32_t GiveBack(frame_handle_t* handle, const std::shared_ptr<DataTransfer>& transfer);
    frame_handle_t* AnnounceLocked(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                   std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback);
    // What libcsi's frame records point to. It outlives the endpoint, until
    // the camera is closed, so that a late frame finds the gate closed.
    struct FrameSink {
        Tools::CallGate gate;
        Endpoint* endpoint = nullptr;
    };
    static void OnStreamChannelFrameReady(FrameRecord* record);
    void EnqueueMessage(FrameRecord* record);

    struct Transfer {
        ControlTransfer control;
        Completion completion;
    };
    enum State : std::int32_t { Running = 0, StopRequested = 1, Stopped = 2 };

    Endpoint(const std::shared_ptr<Device>& device, std::uint32_t number);
    void Start();
    void Run();
    static std::shared_ptr<Transfer> MakeTransfer(void* buffer, std::size_t size, Completion completion);
    static void OnStreamChannelEvent(lib_channel_transfer* transfer);
    static void OnEventChannelEvent(lib_channel_transfer* transfer);
    static void OnDebugChannelEvent(lib_channel_transfer* transfer);

    std::shared_ptr<Device> device;
    std::shared_ptr<LibCSIWrapper_Impl> wrapper;
    const std::uint32_t number;
    EndpointDescriptor descriptor;

    mutable System::Mutex mutex;
    System::Condition condition;
    State state = Stopped;
    std::deque<std::shared_ptr<Transfer>> transfers;

    mutable System::Mutex eventMutex;
    std::deque<std::shared_ptr<Transfer>> eventTransfers;

    // The record through which libcsi reaches this endpoint's channel.
    std::shared_ptr<lib_channel_transfer> channelRecord;

    std::shared_ptr<FrameSink> frameSink;
    mutable System::Mutex frameMutex;
    std::map<frame_handle_t*, std::shared_ptr<DataTransfer>> frames;
    std::map<const void*, frame_handle_t*> payloads;
    bool emulateLeaderTrailer = false;
    std::uint64_t stops = 0; // how often the stream stopped: when a queueing can be let go
    LeaderTrailerParameters leaderTrailer;
    std::shared_ptr<lib_channel_transfer> streamRecord;
    std::atomic<bool> streaming{false};

    std::thread thread;
};

} }
