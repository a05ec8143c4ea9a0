#include "base/BufferRecord.h"
#include "framework/BasicBufferQueue.h"
#include "framework/GenericEventSlot.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <thread>

using namespace QEL;
using namespace QEL::Base;
using System::SharedMutexGuard;

namespace {

// A queue whose stream channel supplies the timestamp, frame ID, filled size and status.
class BufferQueue : public ::testing::Test {
protected:
    BufferQueue()
        : queue(std::make_shared<BasicBufferQueue>(
              "Custom", SupportedBufferInfos{BUFFER_INFO_TIMESTAMP, BUFFER_INFO_FRAMEID, BUFFER_INFO_SIZE_FILLED,
                                             BUFFER_INFO_PAYLOADTYPE, 1002}))
    {
        queue->GetDataSignal().Connect([this] { ++dataFired; });
        queue->GetInputSignal().Connect([this] { ++inputFired; });
    }

    BasicBufferQueue::BufferPtr Announce(std::size_t offset, std::size_t size, void* user = nullptr)
    {
        return queue->AnnounceBuffer(memory.data() + offset, size, user);
    }

    // One frame through the stream channel's steps.
    BasicBufferQueue::BufferPtr Deliver(std::uint64_t frameID)
    {
        auto buffer = queue->TakeFromInputQueue();
        if (!buffer)
            return nullptr;
        queue->BeginAcquisition(buffer);
        auto infos = std::make_shared<BufferInfos>();
        (*infos)[BUFFER_INFO_FRAMEID] = std::make_shared<UInt64Info>(frameID);
        (*infos)[BUFFER_INFO_SIZE_FILLED] = std::make_shared<SizeTInfo>(100);
        (*infos)[1002] = std::make_shared<Int32Info>(-3);
        buffer->SetInfos(infos, false, true);
        queue->FinishAcquisition(buffer);
        return buffer;
    }

    static bool Flag(const BasicBufferQueue::BufferPtr& buffer, BUFFER_INFO_CMD cmd)
    {
        auto info = std::dynamic_pointer_cast<const Bool8Info>(buffer->GetInfo(cmd));
        EXPECT_TRUE(info) << cmd;
        return info && info->GetValue();
    }

    std::array<std::uint8_t, 4096> memory{};
    std::shared_ptr<BasicBufferQueue> queue;
    int dataFired = 0;
    int inputFired = 0;
};

TEST_F(BufferQueue, AnnouncedBlocksMustNotTouch)
{
    Announce(100, 100);
    EXPECT_EQ(Err(GC_ERR_RESOURCE_IN_USE, "Cannot announce one memory block twice."),
              Failure([&] { Announce(199, 10); }))
        << "one shared byte at the end";
    EXPECT_EQ(Err(GC_ERR_RESOURCE_IN_USE, "Cannot announce one memory block twice."),
              Failure([&] { Announce(50, 51); }))
        << "one shared byte at the start";
    EXPECT_EQ(Err(GC_ERR_RESOURCE_IN_USE, "Cannot announce one memory block twice."),
              Failure([&] { Announce(0, 1000); }))
        << "enclosing";
    EXPECT_EQ(1u, queue->GetAnnouncedCount());
    Announce(200, 10);
    Announce(90, 10);
    EXPECT_EQ(3u, queue->GetAnnouncedCount());
    EXPECT_EQ(10u, queue->GetSmallestBufferSize());

    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No data passed."),
              Failure([&] { queue->AnnounceBuffer(nullptr, 10, nullptr); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."), Failure([&] { Announce(1000, 0); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Infos that are only for internal use have been passed."),
              Failure([&] { BasicBufferQueue("Custom", {BUFFER_INFO_IS_QUEUED}); }));
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "No buffers available."),
              Failure([&] { BasicBufferQueue("Custom").GetSmallestBufferSize(); }));
}

TEST_F(BufferQueue, TheFirstBufferDecidesWhoseMemoryTheyAre)
{
    auto own = queue->AllocateBuffer(64, nullptr);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Cannot mix consumer allocated and producer allocated buffers."),
              Failure([&] { Announce(0, 10); }));
    void* base = &base;
    void* user = nullptr;
    queue->RevokeBuffer(own, &base, &user);
    EXPECT_EQ(nullptr, base) << "producer memory goes with the buffer";
    auto consumers = Announce(0, 10, &user);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Cannot mix consumer allocated and producer allocated buffers."),
              Failure([&] { queue->AllocateBuffer(64, nullptr); }));
    queue->RevokeBuffer(consumers, &base, &user);
    EXPECT_EQ(memory.data(), base);
    EXPECT_EQ(static_cast<void*>(&user), user);
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Buffer is not available."), Failure([&] { consumers->GetBase(); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Buffer is not available."),
              Failure([&] { consumers->GetInfo(BUFFER_INFO_SIZE); }));
}

TEST_F(BufferQueue, QueueAndRevokeOnlyFromTheDeliveredPool)
{
    auto a = Announce(0, 10), b = Announce(10, 10), c = Announce(20, 10);
    queue->QueueBuffer(b);
    EXPECT_EQ(1, inputFired);
    EXPECT_EQ(Err(GC_ERR_BUSY, "Buffer is not in the delivered pool."), Failure([&] { queue->QueueBuffer(b); }));
    EXPECT_EQ(Err(GC_ERR_BUSY, "Buffer is not in the delivered pool."),
              Failure([&] { queue->RevokeBuffer(b, nullptr, nullptr); }));
    EXPECT_TRUE(Flag(b, BUFFER_INFO_IS_QUEUED));

    queue->RevokeBuffer(a, nullptr, nullptr);
    EXPECT_EQ(b, queue->GetBufferByIndex(0)) << "later indices drop by one";
    EXPECT_EQ(c, queue->GetBufferByIndex(1));
    EXPECT_EQ(Err(GC_ERR_INVALID_INDEX, "Buffer index out of range."), Failure([&] { queue->GetBufferByIndex(2); }));
    EXPECT_FALSE(queue->BelongsToQueue(a));
    EXPECT_TRUE(queue->BelongsToQueue(c));

    BasicBufferQueue other("Custom");
    std::uint8_t foreignMemory[8];
    auto foreign = other.AnnounceBuffer(foreignMemory, sizeof foreignMemory, nullptr);
    EXPECT_EQ(Err(GC_ERR_INVALID_BUFFER, "Invalid buffer passed."), Failure([&] { queue->QueueBuffer(foreign); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No buffer passed."), Failure([&] { queue->QueueBuffer(nullptr); }));
}

TEST_F(BufferQueue, AFrameMovesFromInputToOutputAndIsDeliveredOnce)
{
    int user = 0;
    auto buffer = Announce(0, 256, &user);
    queue->QueueBuffer(buffer);
    EXPECT_EQ(Err(GC_ERR_INVALID_BUFFER, "Buffer cannot be used for acquisition."),
              Failure([&] { queue->BeginAcquisition(buffer); }))
        << "still in the input queue";
    EXPECT_EQ(Err(GC_ERR_ACCESS_DENIED, "Cannot set infos unless in acquisition state."),
              Failure([&] { buffer->SetInfos(std::make_shared<BufferInfos>(), false, true); }));
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Unavailable info requested."),
              Failure([&] { buffer->GetInfo(BUFFER_INFO_TIMESTAMP); }))
        << "supported, but no frame yet";
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Unsupported info requested."),
              Failure([&] { buffer->GetInfo(BUFFER_INFO_WIDTH); }));

    ASSERT_EQ(buffer, Deliver(7));
    EXPECT_EQ(1, dataFired);
    EXPECT_EQ(1u, queue->GetAwaitDeliveryCount());
    EXPECT_EQ(0u, queue->GetQueuedCount());
    EXPECT_TRUE(Flag(buffer, BUFFER_INFO_NEW_DATA));
    EXPECT_FALSE(Flag(buffer, BUFFER_INFO_IS_INCOMPLETE));
    EXPECT_TRUE(Flag(buffer, BUFFER_INFO_IMAGEPRESENT));

    BufferData record{};
    std::size_t size = sizeof record - 1;
    EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Data size too small."),
              Failure([&] { queue->GetData(&record, &size); }));
    EXPECT_EQ(1u, queue->GetCount()) << "a refused read keeps the buffer";
    size = sizeof record;
    queue->GetData(&record, &size);
    EXPECT_EQ(2 * sizeof(void*), size);
    EXPECT_EQ(&user, record.userPointer);
    EXPECT_EQ(std::shared_ptr<Handleable>(buffer), Handleable::FromHandle(record.bufferHandle));
    EXPECT_EQ(1u, queue->GetDeliveredCount());
    EXPECT_EQ(1u, queue->GetFinishedCount());
    EXPECT_EQ(Err(GC_ERR_ERROR, "No buffer in the output queue."), Failure([&] { queue->GetData(&record, &size); }));

    auto parser = queue->GetEventDataParser();
    auto numID = std::dynamic_pointer_cast<const UInt64Info>(parser->GetDataInfo(&record, sizeof record, EVENT_DATA_NUMID));
    ASSERT_TRUE(numID);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record.bufferHandle), numID->GetValue());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."),
              Failure([&] { parser->GetDataInfo(&record, sizeof record - 1, EVENT_DATA_ID); }));

    EXPECT_TRUE(Flag(buffer, BUFFER_INFO_NEW_DATA)) << "delivered, not yet queued again";
    queue->QueueBuffer(buffer);
    EXPECT_FALSE(Flag(buffer, BUFFER_INFO_NEW_DATA));
}

// Buffers cycle through the pools and the input queue for many frames, in
// the order they were queued, each in one place at a time; what the queue
// keeps from earlier moves holds no buffer alive once it is revoked.
TEST_F(BufferQueue, ManyCyclesKeepTheOrderAndHoldNothingRevoked)
{
    std::vector<BasicBufferQueue::BufferPtr> buffers;
    for (std::size_t i = 0; i < 4; ++i)
        buffers.push_back(Announce(i * 512, 256));
    for (const auto& buffer : buffers)
        queue->QueueBuffer(buffer);
    for (std::uint64_t frame = 0; frame < 40; ++frame) {
        const auto& expected = buffers[frame % buffers.size()];
        ASSERT_EQ(expected, Deliver(frame)) << "frame " << frame;
        EXPECT_EQ(buffers.size() - 1, queue->GetQueuedCount());
        BufferData record{};
        std::size_t size = sizeof record;
        queue->GetData(&record, &size);
        EXPECT_EQ(Handleable::FromHandle(record.bufferHandle), std::shared_ptr<Handleable>(expected));
        EXPECT_EQ(Err(GC_ERR_BUSY, "Buffer is not in the delivered pool."),
                  Failure([&] { queue->RevokeBuffer(buffers[(frame + 1) % buffers.size()], nullptr, nullptr); }))
            << "a queued buffer stays queued";
        queue->QueueBuffer(expected);
    }
    // A buffer taken for the driver and given back goes first again.
    auto taken = queue->TakeFromInputQueue();
    queue->ReturnToInputQueue(taken);
    EXPECT_EQ(taken, queue->TakeFromInputQueue());
    queue->ReturnToInputQueue(taken);
    taken.reset();

    queue->FlushQueue(ACQ_QUEUE_ALL_DISCARD);
    std::weak_ptr<BasicBufferQueue::InternalBuffer> weak = buffers.front();
    void* base = nullptr;
    queue->RevokeBuffer(buffers.front(), &base, nullptr);
    EXPECT_EQ(memory.data(), base);
    buffers.erase(buffers.begin());
    EXPECT_TRUE(weak.expired()) << "the queue still holds a revoked buffer";
    EXPECT_EQ(3u, queue->GetAnnouncedCount());
}

TEST_F(BufferQueue, TheBundleCarriesEveryValueWithItsAvailabilityBits)
{
    int user = 0;
    auto buffer = Announce(64, 256, &user);
    queue->QueueBuffer(buffer);
    Deliver(42);
    auto bundle = std::dynamic_pointer_cast<const BufferInfo>(buffer->GetInfo(BufferRecord::Command));
    ASSERT_TRUE(bundle);
    const auto& bytes = bundle->GetValue();
    ASSERT_EQ(176u, bytes.size());
    auto u64 = [&](std::size_t at) { std::uint64_t v; std::memcpy(&v, bytes.data() + at, 8); return v; };
    auto u32 = [&](std::size_t at) { std::uint32_t v; std::memcpy(&v, bytes.data() + at, 4); return v; };
    const std::uint64_t expectedBits = 0x7 | (0x1Full << 5) | (1ull << 4) | (1ull << 10) | (1ull << 11);
    EXPECT_EQ(expectedBits, u64(0));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory.data() + 64), u64(8));
    EXPECT_EQ(256u, u64(16));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&user), u64(24));
    EXPECT_EQ(0u, u64(32)) << "no timestamp was set";
    EXPECT_EQ(42u, u64(40));
    EXPECT_EQ(0x1u | 0x2u | 0x10u, u32(48)) << "new data, queued (output), image present";
    EXPECT_EQ(static_cast<std::uint32_t>(-3), u32(52));
    EXPECT_EQ(100u, u64(56));
    EXPECT_EQ(0u, u64(64));
}

// The record as its readers know it, written out here rather than taken from
// the record's own table, so that a field swapped or moved there shows.
struct RecordSlot {
    BUFFER_INFO_CMD info;
    std::size_t offset, width;
    unsigned bit;
};
constexpr RecordSlot RecordLayout[] = {{BUFFER_INFO_TIMESTAMP, 32, 8, 3},
                                       {BUFFER_INFO_FRAMEID, 40, 8, 4},
                                       {1002, 52, 4, 10},
                                       {BUFFER_INFO_SIZE_FILLED, 56, 8, 11},
                                       {BUFFER_INFO_WIDTH, 64, 8, 12},
                                       {BUFFER_INFO_HEIGHT, 72, 8, 13},
                                       {BUFFER_INFO_XOFFSET, 80, 8, 14},
                                       {BUFFER_INFO_YOFFSET, 88, 8, 15},
                                       {BUFFER_INFO_XPADDING, 96, 8, 16},
                                       {BUFFER_INFO_YPADDING, 104, 8, 17},
                                       {BUFFER_INFO_IMAGEOFFSET, 112, 8, 18},
                                       {1000, 120, 8, 19},
                                       {BUFFER_INFO_PAYLOADTYPE, 128, 8, 20},
                                       {BUFFER_INFO_PIXELFORMAT, 136, 8, 21},
                                       {BUFFER_INFO_PIXELFORMAT_NAMESPACE, 144, 8, 22},
                                       {BUFFER_INFO_DELIVERED_IMAGEHEIGHT, 152, 8, 23},
                                       {BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE, 160, 8, 24},
                                       {BUFFER_INFO_CHUNKLAYOUTID, 168, 8, 25}};

std::uint64_t SlotValue(const std::vector<std::uint8_t>& record, const RecordSlot& slot)
{
    std::uint64_t wide = 0;
    std::uint32_t narrow = 0;
    if (slot.width == 4)
        std::memcpy(&narrow, record.data() + slot.offset, 4);
    else
        std::memcpy(&wide, record.data() + slot.offset, 8);
    return slot.width == 4 ? narrow : wide;
}

bool SlotMarked(const std::vector<std::uint8_t>& record, const RecordSlot& slot)
{
    std::uint64_t valid = 0;
    std::memcpy(&valid, record.data(), 8);
    return (valid >> slot.bit) & 1u;
}

TEST_F(BufferQueue, EverySuppliedValueLandsInItsOwnFieldOfTheBundle)
{
    namespace R = BufferRecord;
    ASSERT_EQ(std::size(RecordLayout), std::size(R::FromInfos)) << "a field the record fills is not checked here";
    SupportedBufferInfos supported{BUFFER_INFO_CONTAINS_CHUNKDATA, 5000};
    for (const RecordSlot& slot : RecordLayout)
        supported.insert(slot.info);
    queue = std::make_shared<BasicBufferQueue>("Custom", supported);
    auto deliver = [&](std::size_t at, std::shared_ptr<BufferInfos> infos) {
        auto buffer = Announce(at, 256);
        queue->QueueBuffer(buffer);
        buffer = queue->TakeFromInputQueue();
        queue->BeginAcquisition(buffer);
        buffer->SetInfos(infos, false, true);
        queue->FinishAcquisition(buffer);
        auto bundle = std::dynamic_pointer_cast<const BufferInfo>(buffer->GetInfo(R::Command));
        EXPECT_TRUE(bundle);
        return bundle ? bundle->GetValue() : std::vector<std::uint8_t>(R::Size);
    };
    // Every value its own, and the wide ones with bits in both halves.
    auto valueOf = [](const RecordSlot& slot) {
        const auto info = static_cast<std::uint64_t>(slot.info);
        return slot.width == 4 ? info + 7 : 0x100000000ull * info + 7;
    };
    auto infos = std::make_shared<BufferInfos>();
    for (const RecordSlot& slot : RecordLayout)
        (*infos)[slot.info] = slot.width == 4
                                  ? InfoPtr(std::make_shared<UInt32Info>(static_cast<std::uint32_t>(valueOf(slot))))
                                  : InfoPtr(std::make_shared<UInt64Info>(valueOf(slot)));
    // Infos the record has no field for, between and after those it has, are passed over.
    (*infos)[BUFFER_INFO_CONTAINS_CHUNKDATA] = std::make_shared<UInt64Info>(1);
    (*infos)[5000] = std::make_shared<UInt64Info>(1);
    const std::vector<std::uint8_t> full = deliver(0, infos);
    for (const RecordSlot& slot : RecordLayout) {
        EXPECT_TRUE(SlotMarked(full, slot)) << "info " << slot.info;
        EXPECT_EQ(valueOf(slot), SlotValue(full, slot)) << "info " << slot.info;
    }

    // With every other info left out, the missing ones' fields are neither set nor marked.
    auto some = std::make_shared<BufferInfos>();
    for (std::size_t i = 1; i < std::size(RecordLayout); i += 2)
        (*some)[RecordLayout[i].info] = infos->at(RecordLayout[i].info);
    const std::vector<std::uint8_t> part = deliver(256, some);
    for (std::size_t i = 0; i < std::size(RecordLayout); ++i) {
        const RecordSlot& slot = RecordLayout[i];
        EXPECT_EQ(i % 2 == 1, SlotMarked(part, slot)) << "info " << slot.info;
        EXPECT_EQ(i % 2 == 1 ? valueOf(slot) : 0u, SlotValue(part, slot)) << "info " << slot.info;
    }
}

TEST_F(BufferQueue, FlushOperations)
{
    auto a = Announce(0, 10), b = Announce(10, 10), c = Announce(20, 10);
    queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    EXPECT_EQ(1, inputFired);
    EXPECT_EQ(3u, queue->GetQueuedCount());

    auto used = queue->TakeFromInputQueue();
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Cannot flush used buffers from input queue."),
              Failure([&] { queue->FlushQueue(ACQ_QUEUE_INPUT_TO_OUTPUT); }));
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Cannot flush used buffers from input queue."),
              Failure([&] { queue->FlushQueue(ACQ_QUEUE_ALL_DISCARD); }));
    queue->FlushQueue(ACQ_QUEUE_OUTPUT_DISCARD);
    queue->ReturnToInputQueue(used);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Buffer is not in the used buffers pool."),
              Failure([&] { queue->ReturnToInputQueue(used); }));
    EXPECT_EQ(used, queue->TakeFromInputQueue()) << "a returned buffer is next again";
    queue->ReturnToInputQueue(used);

    queue->FlushQueue(ACQ_QUEUE_INPUT_TO_OUTPUT);
    EXPECT_EQ(1, dataFired);
    EXPECT_EQ(3u, queue->GetCount());
    EXPECT_EQ(0u, queue->GetQueuedCount());

    queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    EXPECT_EQ(2, inputFired) << "the output queue went back to the input";
    queue->FlushQueue(ACQ_QUEUE_ALL_DISCARD);
    queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    queue->FlushQueue(ACQ_QUEUE_ALL_DISCARD);
    const int before = inputFired;
    queue->FlushQueue(ACQ_QUEUE_OUTPUT_DISCARD);
    queue->FlushQueue(ACQ_QUEUE_UNQUEUED_TO_INPUT);
    queue->TakeFromInputQueue();
    queue->TakeFromInputQueue();
    queue->TakeFromInputQueue();
    queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    EXPECT_EQ(before + 1, inputFired) << "nothing to move, no signal";

    auto buffer = queue->TakeFromInputQueue();
    EXPECT_FALSE(buffer) << "the used pool holds all three";
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid operation passed."), Failure([&] { queue->FlushQueue(5); }));
    (void)a, (void)b, (void)c;
}

TEST_F(BufferQueue, OneBufferIsFilledAtATimeAndRevokeAllNeedsThemBack)
{
    auto a = Announce(0, 10), b = Announce(10, 10);
    queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    auto first = queue->TakeFromInputQueue(), second = queue->TakeFromInputQueue();
    queue->BeginAcquisition(first);
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Already a buffer used for acquisition."),
              Failure([&] { queue->BeginAcquisition(second); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Buffer is not used for acquisition."),
              Failure([&] { queue->FinishAcquisition(second); }));
    queue->ReturnToInputQueue(second);
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Cannot flush buffers used for acquisition."),
              Failure([&] { queue->RevokeAll(); }));
    auto infos = std::make_shared<BufferInfos>();
    (*infos)[BUFFER_INFO_WIDTH] = std::make_shared<SizeTInfo>(1);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Unsupported infos passed."),
              Failure([&] { first->SetInfos(infos, false, true); }));
    (*infos)[BUFFER_INFO_WIDTH] = nullptr;
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid infos passed."),
              Failure([&] { first->SetInfos(infos, false, true); }));
    queue->FinishAcquisition(first);
    queue->RevokeAll();
    EXPECT_EQ(0u, queue->GetAnnouncedCount());
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Buffer is not available."), Failure([&] { a->GetSize(); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Buffer is not available."), Failure([&] { b->GetUserPointer(); }));
}

// A stream thread fills buffers while the consumer waits in the event and queues them again.
TEST_F(BufferQueue, FramesReachAWaitingConsumerThroughTheEvent)
{
    constexpr int kBuffers = 4;
    constexpr std::uint64_t kFrames = 2000;
    for (int i = 0; i < kBuffers; ++i)
        Announce(static_cast<std::size_t>(i) * 100, 100);
    queue->FlushQueue(ACQ_QUEUE_ALL_TO_INPUT);
    auto slot = GenericEventSlot::Create(EVENT_NEW_BUFFER, queue, true);
    std::shared_ptr<Event> event;
    {
        SharedMutexGuard guard(slot->GetMutex());
        event = slot->Register();
    }

    std::atomic<bool> stop{false};
    std::thread stream([&] {
        std::uint64_t frameID = 0;
        while (!stop) {
            SharedMutexGuard guard(queue->GetMutex());
            if (Deliver(frameID))
                ++frameID;
        }
    });

    std::uint64_t expected = 0;
    for (; expected < kFrames; ++expected) {
        BufferData record{};
        std::size_t size = sizeof record;
        SharedMutexGuard guard(queue->GetMutex());
        ASSERT_EQ(GC_ERR_SUCCESS, event->GetData(&record, &size, 5000));
        auto buffer = std::dynamic_pointer_cast<BasicBuffer>(Handleable::FromHandle(record.bufferHandle));
        ASSERT_TRUE(buffer);
        auto frameID = std::dynamic_pointer_cast<const UInt64Info>(buffer->GetInfo(BUFFER_INFO_FRAMEID));
        ASSERT_TRUE(frameID);
        ASSERT_EQ(expected, frameID->GetValue()) << "frames come in order, none lost";
        queue->QueueBuffer(buffer);
    }
    stop = true;
    stream.join();

    SharedMutexGuard guard(queue->GetMutex());
    EXPECT_EQ(kFrames, queue->GetDeliveredCount());
    EXPECT_EQ(static_cast<std::size_t>(kBuffers), queue->GetQueuedCount() + queue->GetAwaitDeliveryCount())
        << "every buffer is back in the input or waits in the output";
}

}
