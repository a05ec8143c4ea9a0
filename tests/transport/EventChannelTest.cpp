// The CSI event channel against a stand-in endpoint and control channel:
// the ring of receive buffers, packets joined from transfers, the abort and
// its back-off, and a stop that waits for every buffer.
#include "base/BaseException.h"
#include "transport/CCIControlChannel.h"
#include "transport/EndpointHandler.h"
#include "transport/EventChannel.h"
#include "tests/RecordedLog.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

using namespace QEL;
using TransportLayer::EventChannel;

namespace {

class FakeControl : public TransportLayer::ControlChannel {
public:
    explicit FakeControl(std::uint32_t maxLength) : ControlChannel(false), maxLength(maxLength) {}
    std::uint32_t GetMaxEventTransferLength() const override { return maxLength; }
    bool IsEventEnabled() override { return enabled; }
    void EnableEvents(bool enable) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (enable && refuseEnable) {
            ++refused;
            throw Base::Exception("Events refused.", GC_ERR_ERROR);
        }
        enabled = enable;
        (enable ? enables : disables)++;
    }

    std::uint32_t maxLength;
    std::mutex mutex;
    bool refuseEnable = false;
    std::atomic<bool> enabled{false};
    std::atomic<int> enables{0}, disables{0}, refused{0};
};

// Holds the submitted receive buffers until the test completes them.
class FakeEventEndpoint : public LibCSI::EndpointHandler {
public:
    FakeEventEndpoint(std::uint32_t maxCount, std::uint32_t packetSize) : EndpointHandler(maxCount, 65536, packetSize) {}

    void SubmitEvent(void* buffer, std::size_t size, const Callback& callback) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        pending.push_back({static_cast<std::uint8_t*>(buffer), size, callback});
    }
    void AbortEvents() override
    {
        while (CompleteOldest(TransportLayer::TransferAborted, {})) {
        }
    }
    void ResetPipe() override { ++resets; }
    void ClearPipe() override { ++clears; }
    bool IsStalled() const override { return false; }

    // Completes the oldest buffer with `bytes`; false when none is pending.
    bool CompleteOldest(TransportLayer::TransferResult result, const std::vector<std::uint8_t>& bytes)
    {
        Transfer transfer;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (pending.empty())
                return false;
            transfer = pending.front();
            pending.pop_front();
        }
        if (!bytes.empty())
            std::memcpy(transfer.buffer, bytes.data(), std::min(bytes.size(), transfer.size));
        transfer.callback(result, static_cast<std::int32_t>(bytes.size()));
        return true;
    }
    std::size_t PendingCount() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return pending.size();
    }

    std::atomic<int> resets{0}, clears{0};

private:
    struct Transfer {
        std::uint8_t* buffer = nullptr;
        std::size_t size = 0;
        Callback callback;
    };
    mutable std::mutex mutex;
    std::deque<Transfer> pending;
};

// An event packet as the camera sends it on the event endpoint.
std::vector<std::uint8_t> EventPacket(std::uint16_t requestId, std::uint16_t eventId, std::size_t dataSize)
{
    std::vector<std::uint8_t> bytes(12 + 12 + dataSize, 0);
    std::memcpy(bytes.data(), "CSIE", 4);
    const std::uint16_t command = 0x0C00, length = static_cast<std::uint16_t>(12 + dataSize);
    std::memcpy(&bytes[6], &command, 2);
    std::memcpy(&bytes[8], &length, 2);
    std::memcpy(&bytes[10], &requestId, 2);
    std::memcpy(&bytes[12 + 2], &eventId, 2);
    for (std::size_t i = 0; i < dataSize; ++i)
        bytes[24 + i] = static_cast<std::uint8_t>(i);
    return bytes;
}

class CSIEventChannel : public ::testing::Test {
protected:
    // Packets of 64 bytes, events of up to 128: two transfers at most.
    CSIEventChannel() : log(RecordedLog::Install()) {}
    ~CSIEventChannel() override
    {
        channel.reset();
        Tools::Logger::Clear();
    }
    void Start(std::uint32_t transferCount = 3)
    {
        channel = EventChannel::Create(control, endpoint, transferCount);
    }

    std::shared_ptr<RecordedLog> log;
    std::shared_ptr<FakeControl> control = std::make_shared<FakeControl>(128);
    std::shared_ptr<FakeEventEndpoint> endpoint = std::make_shared<FakeEventEndpoint>(2, 64);
    std::shared_ptr<EventChannel> channel;
};

TEST_F(CSIEventChannel, RefusalsOfTheConstructor)
{
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No control channel passed."),
              Failure([&] { EventChannel::Create(nullptr, endpoint, 1); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No endpoint handler passed."),
              Failure([&] { EventChannel::Create(control, nullptr, 1); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid maximum transfer count passed."),
              Failure([&] { EventChannel::Create(control, endpoint, 0); }));
    for (std::uint32_t length : {0u, 11u, 65548u}) {
        control->maxLength = length;
        EXPECT_EQ(Err(GC_ERR_ERROR, "Device reported invalid maximum transfer length."),
                  Failure([&] { EventChannel::Create(control, endpoint, 1); }))
            << length << " (this transport's control channel reports 0)";
    }
    EXPECT_EQ(0u, endpoint->PendingCount());
}

TEST_F(CSIEventChannel, EventsFromOneAndFromTwoTransfers)
{
    control->enabled = true; // left enabled by an earlier user: the pipe is reset first
    Start(3);
    EXPECT_EQ(1, endpoint->resets.load());
    EXPECT_EQ(EventChannel::Running, channel->GetState());
    EXPECT_EQ(2u, endpoint->PendingCount()) << "the handler's limit of two beats the three asked for";
    EXPECT_EQ(116u, channel->GetMaxPayload());
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Cannot send packet without support for event acknowledge."),
              Failure([&] { channel->SendPacket(nullptr); }));
    auto& queue = *channel->GetEventQueue();

    endpoint->CompleteOldest(TransportLayer::TransferSuccess, EventPacket(1, 0x9000, 8)); // 32 bytes: short, complete
    EXPECT_EQ(1u, queue.GetCount());
    EXPECT_EQ(2u, endpoint->PendingCount()) << "the buffer goes round again";

    // 128 bytes fill both transfers of an event exactly: no short transfer is needed to end it.
    const auto big = EventPacket(2, 0x9001, 104);
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, {big.begin(), big.begin() + 64});
    EXPECT_EQ(1u, queue.GetCount()) << "half an event";
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, {big.begin() + 64, big.end()});
    ASSERT_EQ(2u, queue.GetCount());

    // An event of 96 bytes: a full transfer, then a short one ends it.
    const auto middle = EventPacket(3, 0x9002, 72);
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, {middle.begin(), middle.begin() + 64});
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, {middle.begin() + 64, middle.end()});
    EXPECT_EQ(3u, queue.GetCount());
    auto parser = queue.GetEventDataParser();
    std::vector<std::uint8_t> element(parser->GetMaxSize());
    std::size_t size = element.size();
    queue.GetData(element.data(), &size);
    size = element.size();
    queue.GetData(element.data(), &size);
    auto data = std::dynamic_pointer_cast<const Base::BufferInfo>(parser->GetDataInfo(element.data(), size, EVENT_DATA_VALUE));
    ASSERT_EQ(104u, data->GetValue().size()) << "joined in order";
    EXPECT_EQ(103, data->GetValue()[103]);
}

TEST_F(CSIEventChannel, BadStartsAreLoggedOnceAndAGoodStartRecovers)
{
    Start();
    auto& queue = *channel->GetEventQueue();
    std::vector<std::uint8_t> junk(20, 0xAB);
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, junk);
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, junk);
    EXPECT_EQ(1, log->Count("First packet in transfer has no \"U3VE\" prefix.")) << "two bad starts in a row log once";
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, EventPacket(4, 1, 0));
    EXPECT_EQ(1u, queue.GetCount());
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, junk);
    EXPECT_EQ(2, log->Count("First packet in transfer has no")) << "after a good start it logs again";

    auto broken = EventPacket(5, 1, 0);
    broken[8] = 99; // a length that the bytes do not have
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, broken);
    EXPECT_EQ(1, log->Count("Invalid packet found."));
    EXPECT_EQ(EventChannel::Running, channel->GetState()) << "a bad packet does not stop the channel";
}

TEST_F(CSIEventChannel, AFailedTransferAbortsAndTheChannelRestartsAtOnce)
{
    Start();
    endpoint->CompleteOldest(TransportLayer::TransferFailure, {});
    EXPECT_EQ(1, log->Count("Abort event channel due to an error: Transfer returned with an error."));
    // The other buffer is taken back from the endpoint, the camera's event
    // switched off, and the channel restarts at once.
    ASSERT_TRUE(Eventually([&] { return channel->GetState() == EventChannel::Running; }));
    EXPECT_EQ(1, control->disables.load());
    EXPECT_EQ(2u, endpoint->PendingCount());
    EXPECT_TRUE(control->enabled);
    EXPECT_EQ(2, control->enables.load());
    EXPECT_EQ(100u, channel->GetRetryDelay()) << "the next failure without a good transfer waits";
    endpoint->CompleteOldest(TransportLayer::TransferSuccess, EventPacket(6, 1, 0));
    EXPECT_EQ(0u, channel->GetRetryDelay()) << "a good transfer starts the back-off anew";
    EXPECT_EQ(1u, channel->GetEventQueue()->GetCount());
}

TEST_F(CSIEventChannel, FailedRestartsBackOffByDoubling)
{
    Start();
    control->refuseEnable = true;
    endpoint->CompleteOldest(TransportLayer::TransferFailure, {});
    // Restarts fail at once, then after 100 and 200 ms: the delay doubles each time.
    ASSERT_TRUE(Eventually([&] { return channel->GetRetryDelay() >= 800; })) << channel->GetRetryDelay();
    EXPECT_EQ(800u, channel->GetRetryDelay());
    EXPECT_EQ(3, control->refused.load()) << "at once, after 100 and after 200 ms; the next after 400";
    EXPECT_EQ(3, log->Count("Could not enable event channel. Reason: Events refused."));
    EXPECT_EQ(EventChannel::WaitingToRestart, channel->GetState());
    control->refuseEnable = false;
    ASSERT_TRUE(Eventually([&] { return channel->GetState() == EventChannel::Running; }));
}

TEST_F(CSIEventChannel, AStopWaitsForEveryBufferInFlightAndEndsItsThread)
{
    Start();
    EXPECT_EQ(2u, channel->GetBuffersInFlight());
    EXPECT_EQ(1, ThreadsNamed("tl-csi-events"));
    channel.reset(); // the endpoint hands both back, each through its callback
    EXPECT_EQ(0u, endpoint->PendingCount());
    EXPECT_FALSE(control->enabled);
    // Joined by then; the kernel may list a joined thread for a moment longer.
    EXPECT_TRUE(Eventually([] { return ThreadsNamed("tl-csi-events") == 0; }));
}

}
