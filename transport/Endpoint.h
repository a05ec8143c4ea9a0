#pragma once

#include "support/CallGate.h"
#include "support/Condition.h"
#include "support/Mutex.h"
#include "base/Object.h"
#include "transport/ChannelTransfer.h"
#include "transport/Descriptors.h"
#include "transport/FrameInfo.h"
#include "transport/StreamFrames.h"

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

    // The stream endpoint's frame buffers; throws on any other endpoint.
    StreamFrames& Frames();
    // Starts libcsi's stream with the CSI data identifier.
    std::int32_t StartStreaming(std::uint8_t dataIdentifier);
    std::int32_t StopStreaming();

private:
    struct Transfer {
        ControlTransfer control;
        Completion completion;
    };
    enum class State { Running, StopRequested, Stopped };

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
    State state = State::Stopped;
    std::deque<std::shared_ptr<Transfer>> transfers;

    mutable System::Mutex eventMutex;
    std::deque<std::shared_ptr<Transfer>> eventTransfers;

    // The record through which libcsi reaches this endpoint's channel.
    std::shared_ptr<lib_channel_transfer> channelRecord;

    std::unique_ptr<StreamFrames> frames; // the stream endpoint's only
    std::shared_ptr<lib_channel_transfer> streamRecord;
    std::atomic<bool> streaming{false};

    std::thread thread;
};

} }
