#pragma once

#include "support/CallGate.h"
#include "support/Mutex.h"
#include "transport/ChannelTransfer.h"
#include "transport/FrameInfo.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <vector>

namespace QEL { namespace LibCSI {

class Device;
class LibCSIWrapper_Impl;

// The frame buffers of one camera's stream endpoint: what libcsi was told of
// each (by handle and by payload address), a record per queueing with the
// handler it was queued with, and the hand-over of each finished frame to
// that handler. Every method takes the frame mutex; none calls a handler
// while holding it.
class StreamFrames {
public:
    // The callback gets each finished frame, on libcsi's frame callback thread
    // and without the frame mutex.
    using FrameCallback = std::function<void(const frame_info& frame)>;
    // The handler of a buffer's frames, kept by every queueing of the buffer:
    // shared, so that a queueing copies a pointer and allocates nothing.
    using FrameHandler = std::shared_ptr<const FrameCallback>;

    StreamFrames(std::shared_ptr<Device> device, std::shared_ptr<LibCSIWrapper_Impl> wrapper);
    StreamFrames(const StreamFrames&) = delete;
    StreamFrames& operator=(const StreamFrames&) = delete;

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
    // The stream stopped: after the next start, queueings from before this
    // stop can no longer come back.
    void StreamStopped();

    // No frame reaches a handler from here on; one being handed over finishes first.
    void CloseGate();
    // Revokes what is left without telling the handlers; what libcsi may
    // still reach is kept until the camera closes.
    void RevokeLeft();

private:
    enum class Origin { Allocated, Announced };
    struct DataTransfer {
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
    // What libcsi's frame records point to. It outlives these frames, until
    // the camera is closed, so that a late frame finds the gate closed.
    struct FrameSink {
        Tools::CallGate gate;
        StreamFrames* frames = nullptr;
    };

    std::shared_ptr<DataTransfer> MakeDataTransfer(Origin origin, void* payload, std::size_t size,
                                                   std::uint32_t leaderSize, std::uint32_t trailerSize,
                                                   FrameHandler callback);
    frame_handle_t* AnnounceLocked(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                   std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback);
    std::int32_t GiveBack(frame_handle_t* handle, const std::shared_ptr<DataTransfer>& transfer);
    static void OnFrameReady(FrameRecord* record);
    void Deliver(FrameRecord* record);

    std::shared_ptr<Device> device;
    std::shared_ptr<LibCSIWrapper_Impl> wrapper;
    std::shared_ptr<FrameSink> frameSink;

    mutable System::Mutex frameMutex;
    std::map<frame_handle_t*, std::shared_ptr<DataTransfer>> frames;
    std::map<const void*, frame_handle_t*> payloads;
    bool emulateLeaderTrailer = false;
    std::uint64_t stops = 0; // how often the stream stopped: when a queueing can be let go
    LeaderTrailerParameters leaderTrailer;
};

}} // namespace QEL::LibCSI
