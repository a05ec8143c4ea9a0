#include "base/BaseException.h"
#include "framework/EventRecords.h"
#include "sim/CameraFirmware.h"
#include "sim/PixelFormats.h"
#include "support/MutexGuard.h"
#include "tests/TestSupport.h"
#include "tests/transport/TransportTestSupport.h"
#include "transport/CCIControlChannel.h"
#include "transport/Endpoint.h"
#include "transport/EndpointHandler.h"
#include "transport/LibCSIDevice.h"
#include "transport/StreamChannel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <numeric>
#include <vector>

using namespace QEL;
using TransportLayer::StreamChannel;

namespace {

// The stream channel of the left virtual camera over its control and stream
// endpoints, with a buffer queue and an error queue as a data stream has them.
class Streams : public TransportTest::Board {
protected:
    Streams()
    {
        CreateLibrary(false);
        device = library->OpenDevice("LEFT-0001", library);
        out = LibCSI::Endpoint::Open(device, LibCSI::CONTROL_CHANNEL);
        in = LibCSI::Endpoint::Open(device, LibCSI::CONTROL_CHANNEL_IN);
        const std::uint32_t packet = out->GetMaxPacketSize();
        outHandler = LibCSI::EndpointHandler::Create(out, 1, packet, LibCSI::CONTROL_CHANNEL);
        inHandler = LibCSI::EndpointHandler::Create(in, 1, packet, LibCSI::CONTROL_CHANNEL_IN);
        control = TransportLayer::ControlChannel::Create(inHandler, outHandler, nullptr, 0, 1000, false);
        stream = LibCSI::Endpoint::Open(device, LibCSI::ENDPOINT_MODE_SI);
        streamHandler = LibCSI::EndpointHandler::Create(stream, 64, 0x40000, LibCSI::ENDPOINT_MODE_SI);
        channel = StreamChannel::Create(control, streamHandler, -1, -1);
        queue = std::make_shared<StreamChannel::BufferQueue>("Custom", channel->GetSupportedBufferInfos());
        errors = std::make_shared<StreamChannel::ErrorQueue>();
        queue->GetDataSignal().Connect([this] { delivered.notify_all(); });
        geometry = system->GetFirmware(0).Geometry();
    }

    ~Streams() override
    {
        channel.reset();
        streamHandler.reset();
        stream.reset();
        control.reset();
        inHandler.reset();
        outHandler.reset();
        in.reset();
        out.reset();
        queue.reset();
        device.reset();
    }

    // Buffers of the consumer, announced to queue and channel and queued.
    void AnnounceAndQueue(std::size_t count, std::size_t size)
    {
        memory.resize(count);
        System::SharedMutexGuard guard(queue->GetMutex());
        for (std::size_t i = 0; i < count; ++i) {
            memory[i].resize(size);
            auto buffer = queue->AnnounceBuffer(memory[i].data(), size, reinterpret_cast<void*>(i));
            channel->AnnounceBuffer(buffer);
            buffers.push_back(buffer);
        }
        for (auto& buffer : buffers)
            queue->QueueBuffer(buffer);
    }

    void Start(std::uint32_t mode = StreamChannel::Auto, std::uint64_t manual = 0)
    {
        channel->StartStreaming(channel->GetBufferAnnounceMinimum(), GENTL_INFINITE, queue, errors, mode, manual,
                                false);
    }

    // The next delivered buffer, as EVENT_NEW_BUFFER would hand it out; null after 10 s.
    StreamChannel::BufferQueue::BufferPtr Next()
    {
        std::unique_lock<std::mutex> wait(waitMutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (;;) {
            {
                System::SharedMutexGuard guard(queue->GetMutex());
                if (!queue->IsEmpty()) {
                    Base::BufferData record{};
                    std::size_t size = sizeof record;
                    queue->GetData(&record, &size);
                    return buffers.at(reinterpret_cast<std::uintptr_t>(record.userPointer));
                }
            }
            if (delivered.wait_until(wait, std::min(deadline, std::chrono::steady_clock::now() +
                                                                   std::chrono::milliseconds(20))) ==
                    std::cv_status::timeout &&
                std::chrono::steady_clock::now() >= deadline)
                return nullptr;
        }
    }

    template <class T>
    T Value(const StreamChannel::BufferQueue::BufferPtr& buffer, BUFFER_INFO_CMD cmd)
    {
        System::SharedMutexGuard guard(queue->GetMutex());
        T value{};
        std::size_t size = sizeof value;
        queue->GetBufferInfo(buffer, cmd)->Read(&value, &size);
        return value;
    }

    std::shared_ptr<LibCSI::Device> device;
    std::shared_ptr<LibCSI::Endpoint> out, in, stream;
    std::shared_ptr<LibCSI::EndpointHandler> outHandler, inHandler, streamHandler;
    std::shared_ptr<TransportLayer::ControlChannel> control;
    std::shared_ptr<StreamChannel> channel;
    std::shared_ptr<StreamChannel::BufferQueue> queue;
    std::shared_ptr<StreamChannel::ErrorQueue> errors;
    std::vector<std::vector<std::uint8_t>> memory;
    std::vector<StreamChannel::BufferQueue::BufferPtr> buffers;
    Sim::CameraFirmware::FrameGeometry geometry{};
    std::mutex waitMutex;
    std::condition_variable delivered;
};

TEST_F(Streams, FramesReachTheQueueWithTheirInfosAndEveryPixel)
{
    AnnounceAndQueue(4, geometry.payloadSize + 100);
    Start();
    EXPECT_TRUE(channel->IsStreaming());
    EXPECT_EQ(geometry.payloadSize + 100, channel->GetStreamPayloadSize()) << "Auto: the smallest buffer";
    EXPECT_EQ(0x31, control->GetDataIdentifier(0)) << "both sides offer 0x31";
    EXPECT_TRUE(control->IsStreamEnabled(0));

    std::uint64_t lastFrame = 0;
    int wrongPixels = 0;
    for (int frame = 0; frame < 300; ++frame) {
        auto buffer = Next();
        ASSERT_TRUE(buffer) << "frame " << frame;
        const auto id = Value<std::uint64_t>(buffer, BUFFER_INFO_FRAMEID);
        EXPECT_GT(id, lastFrame);
        lastFrame = id;
        EXPECT_EQ(geometry.width, Value<std::size_t>(buffer, BUFFER_INFO_WIDTH));
        EXPECT_EQ(geometry.height, Value<std::size_t>(buffer, BUFFER_INFO_HEIGHT));
        EXPECT_EQ(geometry.format->pfnc, Value<std::uint64_t>(buffer, BUFFER_INFO_PIXELFORMAT));
        EXPECT_EQ(1u, Value<std::uint64_t>(buffer, BUFFER_INFO_PIXELFORMAT_NAMESPACE));
        EXPECT_EQ(std::size_t{PAYLOAD_TYPE_IMAGE}, Value<std::size_t>(buffer, BUFFER_INFO_PAYLOADTYPE));
        EXPECT_EQ(geometry.payloadSize, Value<std::size_t>(buffer, BUFFER_INFO_SIZE_FILLED));
        EXPECT_EQ(geometry.imageBytes, Value<std::size_t>(buffer, 1000)) << "width x height x bits per pixel";
        EXPECT_EQ(geometry.payloadSize - geometry.imageBytes, Value<std::size_t>(buffer, BUFFER_INFO_YPADDING));
        const auto* image = static_cast<const std::uint8_t*>(buffer->GetBase());
        for (std::uint32_t y = 0; y < geometry.height; ++y)
            for (std::uint32_t x = 0; x < geometry.width; ++x)
                for (std::uint32_t s = 0; s < geometry.format->samples; ++s)
                    if (Sim::ReadSample(image, geometry.width, x, y, s, *geometry.format) !=
                        Sim::PatternSample(x, y, s, id, *geometry.format, 0))
                        ++wrongPixels;
        System::SharedMutexGuard guard(queue->GetMutex());
        queue->QueueBuffer(buffer);
    }
    EXPECT_EQ(0, wrongPixels);
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now() + std::chrono::milliseconds(200)));
    EXPECT_FALSE(channel->IsStreaming());
    EXPECT_FALSE(control->IsStreamEnabled(0)) << "stopping disables the stream in the camera";
    EXPECT_FALSE(channel->StopStreaming(System::Clock::now())) << "no stream was running";
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Stream payload size not available at the moment."),
              Failure([&] { channel->GetStreamPayloadSize(); }));

    // The same buffers stream again after a stop, once the consumer has them all queued.
    {
        System::SharedMutexGuard guard(queue->GetMutex());
        queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
        EXPECT_EQ(4u, queue->GetQueuedCount()) << "none was lost in the stop";
    }
    Start();
    ASSERT_TRUE(Next());
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));
    EXPECT_TRUE(errors->IsEmpty());
}

// Frames that libcsi gives back after a stop wait for the queue's lock; when
// the consumer starts the next stream before they get it, they arrive in that
// stream. Their buffers are queued in it again by then, and a late frame must
// not take them for its own: after the last stop every buffer is back.
TEST_F(Streams, LateFramesOfAStoppedStreamLeaveTheNextStreamsBuffersAlone)
{
    AnnounceAndQueue(4, geometry.payloadSize);
    Start();
    for (int cycle = 0; cycle < 10; ++cycle) {
        ASSERT_TRUE(Next()) << "cycle " << cycle;
        System::SharedMutexGuard guard(queue->GetMutex());
        EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));
        queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
        Start();
    }
    ASSERT_TRUE(Next());
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));
    // Late frames of the last streams may still come; they find no stream.
    System::SharedMutexGuard guard(queue->GetMutex());
    EXPECT_NO_THROW(queue->FlushQueue(ACQ_QUEUE_ALL_DISCARD)) << "a buffer was left with libcsi's stream";
    EXPECT_EQ(0u, queue->GetQueuedCount());
}

TEST_F(Streams, StartRefusesWhatCannotStream)
{
    AnnounceAndQueue(3, geometry.payloadSize);
    const auto minimum = channel->GetBufferAnnounceMinimum();
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid driver buffers count passed."),
              Failure([&] { channel->StartStreaming(4097, 1, queue, errors, StreamChannel::Auto, 0, false); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No images to acquire."),
              Failure([&] { channel->StartStreaming(minimum, 0, queue, errors, StreamChannel::Auto, 0, false); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No buffer queue passed."),
              Failure([&] { channel->StartStreaming(minimum, 1, nullptr, errors, StreamChannel::Auto, 0, false); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid stream payload size mode passed."),
              Failure([&] { channel->StartStreaming(minimum, 1, queue, errors, 7, 0, false); }));
    const std::uint64_t alignment = channel->GetPayloadSizeAlignment();
    EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Manual payload size too small for current payload size."),
              Failure([&] { Start(StreamChannel::Manual, geometry.payloadSize - 1); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Manual payload size not aligned."),
              Failure([&] { Start(StreamChannel::Manual, StreamChannel::AlignSize(geometry.payloadSize, alignment, true) + 1); }));
    EXPECT_FALSE(channel->IsStreaming()) << "refusals start nothing";

    // A buffer smaller than the payload cannot take a frame.
    std::vector<std::uint8_t> small(geometry.payloadSize - 1);
    StreamChannel::BufferQueue::BufferPtr smallBuffer;
    {
        System::SharedMutexGuard guard(queue->GetMutex());
        smallBuffer = queue->AnnounceBuffer(small.data(), small.size(), nullptr);
    }
    for (auto mode : {StreamChannel::Auto, StreamChannel::PayloadSize})
        EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "One or more buffers are too small for current stream payload size."),
                  Failure([&] { Start(mode); }));
    {
        System::SharedMutexGuard guard(queue->GetMutex());
        void *base = nullptr, *user = nullptr;
        queue->RevokeBuffer(smallBuffer, &base, &user);
    }
    Start(StreamChannel::PayloadSize);
    EXPECT_EQ(geometry.payloadSize, channel->GetStreamPayloadSize());
    EXPECT_EQ(Err(GC_ERR_RESOURCE_IN_USE, "Streaming already running."), Failure([&] { Start(); }));
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));
}

TEST_F(Streams, TheTransferPlanCutsThePayload)
{
    // 0x40000 per transfer at most; the payload here is three of them exactly.
    AnnounceAndQueue(3, 3 * 0x40000);
    Start();
    auto plan = channel->GetTransferPlan();
    ASSERT_EQ(5u, plan.size()) << "leader, three transfers, trailer";
    EXPECT_EQ(StreamChannel::PlanEntry::Leader, plan.front().kind);
    EXPECT_EQ(StreamChannel::PlanEntry::Trailer, plan.back().kind);
    for (std::size_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(StreamChannel::PlanEntry::Payload, plan[i].kind);
        EXPECT_EQ((i - 1) * 0x40000, plan[i].offset);
        EXPECT_EQ(0x40000u, plan[i].size);
    }
    EXPECT_EQ(0u, plan.front().size % streamHandler->GetMaxPacketSize()) << "records round up to whole packets";
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));
    EXPECT_TRUE(channel->GetTransferPlan().empty()) << "the plan goes with the stream";
}

// A payload that is no multiple of the transfer size: the rest goes into a
// first final transfer of whole aligned packets and a second one for what is
// left, or into a single final transfer; a transfer size below one packet
// cannot carry a payload at all.
TEST_F(Streams, TheTransferPlanCarriesTheRestInFinalTransfers)
{
    const std::uint64_t packet = streamHandler->GetMaxPacketSize();
    const std::uint64_t alignment = channel->GetPayloadSizeAlignment();
    const std::uint64_t common = std::lcm(packet, alignment);
    const std::uint64_t transfer = 0x40000 - 0x40000 % common;
    const std::uint64_t size = 3 * transfer + 2 * common + 5;
    AnnounceAndQueue(3, size);
    auto kinds = [](const std::vector<StreamChannel::PlanEntry>& plan) {
        std::vector<std::uint32_t> list;
        for (const auto& entry : plan)
            list.push_back(entry.kind);
        return list;
    };
    using Entry = StreamChannel::PlanEntry;

    Start();
    auto plan = channel->GetTransferPlan();
    ASSERT_EQ((std::vector<std::uint32_t>{Entry::Leader, Entry::Payload, Entry::Payload, Entry::Payload,
                                          Entry::FirstFinal, Entry::SecondFinal, Entry::Trailer}),
              kinds(plan));
    EXPECT_EQ(3 * transfer, plan[4].offset);
    EXPECT_EQ(2 * common, plan[4].size) << "the rest down to whole aligned packets";
    EXPECT_EQ(plan[4].offset + plan[4].size, plan[5].offset);
    EXPECT_GE(plan[5].size, 5u);
    EXPECT_EQ(0u, plan[5].size % packet);
    EXPECT_EQ(0u, plan[5].size % alignment);
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));

    {
        System::SharedMutexGuard guard(queue->GetMutex());
        queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    }
    channel->StartStreaming(channel->GetBufferAnnounceMinimum(), GENTL_INFINITE, queue, errors, StreamChannel::Auto,
                            0, true);
    plan = channel->GetTransferPlan();
    ASSERT_EQ((std::vector<std::uint32_t>{Entry::Leader, Entry::Payload, Entry::Payload, Entry::Payload,
                                          Entry::FirstFinal, Entry::Trailer}),
              kinds(plan));
    EXPECT_GE(plan[4].size, 2 * common + 5) << "one final transfer holds the whole rest";
    EXPECT_EQ(0u, plan[4].size % packet);
    EXPECT_TRUE(channel->StopStreaming(System::Clock::now()));
    {
        System::SharedMutexGuard guard(queue->GetMutex());
        queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    }

    // Transfers smaller than a packet: no whole packet fits, nothing can carry the payload.
    channel.reset();
    streamHandler.reset();
    streamHandler = LibCSI::EndpointHandler::Create(stream, 64, static_cast<std::uint32_t>(packet - 1),
                                                    LibCSI::ENDPOINT_MODE_SI);
    channel = StreamChannel::Create(control, streamHandler, -1, -1);
    std::for_each(buffers.begin(), buffers.end(), [&](const auto& buffer) { channel->AnnounceBuffer(buffer); });
    EXPECT_EQ(Err(GC_ERR_ERROR, "Impossible to split the required payload size into stream transfers."),
              Failure([&] { Start(); }));
    EXPECT_FALSE(channel->IsStreaming()) << "a refused start leaves the stream stopped";
}

TEST(StreamChannelRules, DataIdentifiersAndAlignment)
{
    EXPECT_EQ(0x31, StreamChannel::ChooseDataIdentifier({0x2A, 0x31}, {0x2A, 0x31}));
    EXPECT_EQ(0x2A, StreamChannel::ChooseDataIdentifier({0x2A}, {0x2A}));
    EXPECT_EQ(0x2B, StreamChannel::ChooseDataIdentifier({0x2B, 0x2C, 0x31}, {0x2C, 0x2B}));
    EXPECT_EQ(Err(GC_ERR_ERROR, "No common CSI data identifier found for host and device."),
              Failure([&] { StreamChannel::ChooseDataIdentifier({0x2A}, {0x31}); }));
    EXPECT_EQ(992u, StreamChannel::AlignSize(1000, 16, false));
    EXPECT_EQ(1008u, StreamChannel::AlignSize(1000, 16, true));
    EXPECT_EQ(1008u, StreamChannel::AlignSize(1008, 16, true));
    EXPECT_EQ(0u, StreamChannel::AlignSize(1000, 0, false)) << "alignment 0: the whole value is the remainder";
    EXPECT_EQ(Err(GC_ERR_ERROR, "Rounding up with the given alignment would lead to an overflow."),
              Failure([&] { StreamChannel::AlignSize(~std::uint64_t{0} - 3, 16, true); }));
}

}
