#pragma once

// One camera of a GenTL producer as the source element uses it: chosen,
// opened for control, its GenApi document, and its data stream with buffers
// that leave as frames and come back when their last user lets go. Knows
// nothing of GStreamer, so that its rules are tested on their own.
//
// Lifetime: a Camera is shared. The element owns it while it streams and
// every frame that left owns it too, so the stream, the device and the
// producer stay open until the last frame is back, whatever the element does
// meanwhile, unless Close ends them early (a camera pulled out), which only
// frames in memory of ours survive (BufferMemory::Element). Threads: Wait is for one thread at a time (the streaming thread);
// Interrupt, Release, Stop and the feature calls for any thread. No lock of
// ours is held while Wait waits.
#include "client/FeatureTree.h"
#include "client/Session.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace LorunGst {

enum class CameraErrorKind { NotFound, Busy, Lost, Timeout, Failed };

class CameraError : public LorunClient::ProducerError {
public:
    CameraError(CameraErrorKind kind, GC_ERROR code, const std::string& text)
        : ProducerError(code, text), kind(kind)
    {
    }
    CameraErrorKind kind;
};

// Which camera: every field given must match; none given is the first one.
struct CameraChoice {
    std::string deviceId;
    std::string serial;
    std::int32_t index = -1; // among the cameras the other fields leave; -1: not given
};

// A filled buffer on its way out.
struct Frame {
    BUFFER_HANDLE handle = nullptr;
    std::uint8_t* base = nullptr;
    std::size_t size = 0;   // of the buffer
    std::size_t filled = 0; // bytes the camera wrote
    std::uint32_t width = 0, height = 0;
    std::uint32_t paddingX = 0; // bytes after each line
    std::uint64_t pixelFormat = 0;
    std::uint64_t frameId = 0;
    bool hasFrameId = false;
    std::uint64_t timestampNs = 0; // device clock
    bool incomplete = false;
    std::uint64_t generation = 0; // of the announced set it belongs to
    std::shared_ptr<const void> memory; // keeps `base` valid, whatever the camera does
};

enum class WaitResult { Frame, Interrupted, Quiet };

// Whose memory the frames are in. The producer's is filled without a copy but
// goes with the stream; the element's is announced to the stream (this
// producer copies each frame into it) and outlives it, so that a camera
// pulled out can be closed at once whatever downstream still holds.
enum class BufferMemory { Producer, Element };

// The GenTL modules of a camera whose GenApi documents the element shows.
enum class Module { Remote, Device, Stream };

class Camera {
public:
    // Loads (or shares) the producer and opens the chosen camera for control.
    // Throws CameraError: NotFound listing the cameras seen, Busy when another
    // user has it open.
    static std::shared_ptr<Camera> Open(const std::string& producerPath, const CameraChoice& choice);
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    const std::string& Id() const { return id; }

    // A module's GenApi document (the camera's own by default), read when
    // first asked for; calls are serialised.
    template <class Call>
    auto WithFeatures(Call call)
    {
        return WithFeatures(Module::Remote, call);
    }
    template <class Call>
    auto WithFeatures(Module module, Call call)
    {
        const std::lock_guard<std::mutex> lock(featureMutex);
        return call(Tree(module));
    }
    // "Name=Value Name=Value ..." written in order; the first refusal throws.
    void ApplyFeatures(const std::string& settings);

    // Announces `bufferCount` buffers of the current payload size, queues
    // them and starts acquisition. A buffer still out from an earlier start
    // is revoked when it comes back.
    void Start(std::uint32_t bufferCount, BufferMemory where = BufferMemory::Producer);
    // Stops acquisition and revokes every buffer that is not out.
    void Stop();
    // Stops, revokes every buffer and closes the stream and the device now:
    // for a camera that is gone. Frames out must be in the element's memory,
    // which they keep; with frames out in the producer's, throws.
    void Close();
    bool Acquiring() const { return acquiring; }
    bool Closed() const { return closed; }

    // Waits up to `milliseconds` (GENTL_INFINITE: for ever) for the next
    // filled buffer; the frame is out until Release.
    WaitResult Wait(Frame& frame, std::uint64_t milliseconds);
    // Ends a Wait at once, or the next one when none waits.
    void Interrupt();
    // Gives a frame back: queued again while its set is acquiring, else revoked.
    void Release(BUFFER_HANDLE handle, std::uint64_t generation);
    std::size_t FramesOut() const;

    // False once the interface reports the camera gone.
    bool Present();
    // The stream's counters by name (delivered, underrun, announced, queued, ...).
    std::map<std::string, std::uint64_t> Statistics();

private:
    Camera(std::shared_ptr<LorunClient::Session> session, const LorunClient::Session::Camera& camera,
           DEV_HANDLE device);
    void StopLocked(); // streamMutex held
    void RevokeIdle();
    LorunClient::FeatureTree& Tree(Module module); // featureMutex held
    void Revoke(BUFFER_HANDLE buffer);
    std::uint64_t TimestampNs(BUFFER_HANDLE buffer);
    // A frame's size and pixel format, fixed while acquiring (the camera locks
    // them): asked of the first frame after each start, then known.
    struct Layout {
        std::uint32_t width = 0, height = 0, paddingX = 0;
        std::uint64_t pixelFormat = 0;
    };
    Layout LayoutOf(BUFFER_HANDLE buffer);
    bool ReadRecord(Frame& frame);
    std::uint64_t Nanoseconds(std::uint64_t ticks) const; // of the device clock

    std::shared_ptr<LorunClient::Session> session;
    LorunClient::GenTLProducer& producer;
    LorunClient::Session::Camera where;
    std::string id;
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE newBuffer = nullptr;
    std::uint64_t ticksPerSecond = 0; // of the device clock; 0: nanoseconds
    std::atomic<bool> hasTimestampNs{true}; // until the producer says otherwise
    // This producer's one-call record of a buffer's values (ReadRecord), until refused.
    std::atomic<bool> useRecord{false};

    std::mutex featureMutex;
    std::unique_ptr<LorunClient::FeatureTree> features;
    std::unique_ptr<LorunClient::FeatureTree> deviceFeatures, streamFeatures;

    // Guards the buffer sets and the acquisition state; never held in Wait.
    mutable std::mutex streamMutex;
    std::atomic<bool> acquiring{false};
    std::uint64_t generation = 0;
    std::atomic<bool> closed{false};
    std::optional<Layout> layout;    // of this start's frames, once the first came
    struct Announced {
        std::shared_ptr<void> block; // ours; empty: the producer's
        std::uint8_t* base = nullptr;
        std::size_t size = 0;
        bool out = false; // handed out by Wait, not yet back through Release
    };
    std::map<BUFFER_HANDLE, Announced> memory; // every announced buffer, asked once for where it is
};

}
