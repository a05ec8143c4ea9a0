// Acquisition through the built producer: a consumer's buffers and allocated
// ones, EVENT_NEW_BUFFER for each frame, the buffer infos, every pixel
// checked against the virtual camera's pattern, stop, flush and revoke.
#include "tests/consumer/AcquisitionFixture.h"

namespace {

TEST_F(Acquisition, EveryPixelOfThreeHundredFramesInOwnAndAllocatedBuffers)
{
    EXPECT_EQ(payloadSize, Read64(stream, 0x1050000)) << "PayloadSizeReg";
    AnnounceAndQueue(4, 2);
    EXPECT_EQ(6u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));
    EXPECT_EQ(6u, StreamInfo<size_t>(STREAM_INFO_NUM_QUEUED));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    EXPECT_NE(0, StreamInfo<bool8_t>(STREAM_INFO_IS_GRABBING));
    Grab(300);
    EXPECT_EQ(0, wrongPixels);
    for (std::size_t i = 0; i < buffers.size(); ++i)
        EXPECT_GT(seen[i], 0) << "buffer " << i << (i < 4 ? " (own)" : " (allocated)") << " was never filled";
    EXPECT_GT(timestamps.size(), 1u) << "timestamps move";

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ(0, StreamInfo<bool8_t>(STREAM_INFO_IS_GRABBING));
    EXPECT_GE(StreamInfo<std::uint64_t>(STREAM_INFO_NUM_DELIVERED), 300u);
    EXPECT_GE(Read64(stream, 0x10E0000), 300u) << "StatFrameDelivered, from the driver";
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ("Streaming not running.", producer.LastError().second);

    // Flushed back to the input queue, the same buffers stream again.
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_TO_INPUT));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(20);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_KILL));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();
    EXPECT_EQ(0u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));
    EXPECT_EQ(0, wrongPixels);
}

TEST_F(Acquisition, EveryPixelOfThreeHundredFramesInMappedFramesThatTheProducerAllocated)
{
    StreamVerified(0, 4, 300); // libcsi's MMAP mode without a copy
}

TEST_F(Acquisition, StartAndStopRules)
{
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, LORUN_FN(DSStartAcquisition)(stream, 1, GENTL_INFINITE));
    EXPECT_EQ("Unsupported start flags passed.", producer.LastError().second);
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << "no buffers";
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, LORUN_FN(DSStopAcquisition)(stream, 2));
    AnnounceAndQueue(3, 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    EXPECT_EQ("Streaming already running.", producer.LastError().second);
    std::vector<std::uint8_t> late(payloadSize);
    BUFFER_HANDLE buffer = nullptr;
    EXPECT_EQ(GC_ERR_BUSY, LORUN_FN(DSAnnounceBuffer)(stream, late.data(), late.size(), nullptr, &buffer));
    void* base = nullptr;
    void* user = nullptr;
    EXPECT_EQ(GC_ERR_BUSY, LORUN_FN(DSRevokeBuffer)(stream, buffers[0], &base, &user));
    std::uint32_t mode = 2;
    size_t size = sizeof mode;
    EXPECT_NE(GC_ERR_SUCCESS, LORUN_FN(GCWritePort)(stream, 0x1090000, &mode, &size)) << "locked while streaming";
    Grab(5);
    DS_HANDLE second = nullptr;
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(DevOpenDataStream)(device, "DEV_CAM-1_DS_0x0", &second));
    // Closing the device while the stream runs stops and closes everything.
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

// Every thread the library starts has a name `top -H` shows, and the library
// takes them all with it when it closes.
TEST_F(Acquisition, TheLibrarysThreadsAreNamedAndEndWithIt)
{
    AnnounceAndQueue(3, 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    Grab(3);
    EXPECT_EQ(1, ThreadsNamed("tl-enumeration"));
    EXPECT_LE(1, ThreadsNamed("tl-endpoint")) << "one per open channel of the camera";
    EXPECT_EQ(1, ThreadsNamed("csi-dequeue"));
    EXPECT_EQ(1, ThreadsNamed("vcam-frames"));
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCCloseLib()) << "with the stream still running";
    for (const char* prefix : {"tl-", "csi-", "vcam-frames"})
        EXPECT_TRUE(Eventually([&] { return ThreadsNamed(prefix) == 0; }))
            << prefix << " left: " << ThreadsNamed(prefix);
}

TEST_F(Acquisition, AWaitingConsumerIsWokenByTheStopOfAKill)
{
    AnnounceAndQueue(3, 0);
    auto getData = LORUN_FN(EventGetData);
    ThreadId waiter{0};
    std::atomic<GC_ERROR> woken{GC_ERR_SUCCESS};
    std::thread waiting([&] {
        MarkThisThread(waiter);
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        woken = getData(newBuffer, &data, &size, GENTL_INFINITE); // nothing streams: only the kill ends it
    });
    // Asleep in its wait before the kill, so that the kill wakes it and is not merely kept for later.
    EXPECT_TRUE(Eventually([&] { return Asleep(waiter); }));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventKill)(newBuffer));
    waiting.join();
    EXPECT_EQ(GC_ERR_ABORT, woken.load()) << "a kill ends the wait";
    EVENT_NEW_BUFFER_DATA data{};
    size_t size = sizeof data;
    EXPECT_EQ(GC_ERR_TIMEOUT, getData(newBuffer, &data, &size, 20)) << "the kill was used up by the waiter";
}

TEST_F(Acquisition, ConsumerThreadsSideBySide)
{
    AnnounceAndQueue(4, 0);
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    auto readFunctions = [&] {
        auto getInfo = LORUN_FN(DSGetInfo);
        auto readPort = LORUN_FN(GCReadPort);
        auto bufferInfo = LORUN_FN(DSGetBufferInfo);
        while (!done) {
            std::uint64_t delivered = 0, statistic = 0;
            INFO_DATATYPE type = 0;
            size_t size = sizeof delivered;
            failures += getInfo(stream, STREAM_INFO_NUM_DELIVERED, &type, &delivered, &size) != GC_ERR_SUCCESS;
            size = sizeof statistic;
            failures += readPort(stream, 0x10E0000, &statistic, &size) != GC_ERR_SUCCESS;
            size_t width = 0;
            size = sizeof width;
            // A buffer may be anywhere at this moment; asking must never fail in a bad way.
            const GC_ERROR answer = bufferInfo(stream, buffers[1], BUFFER_INFO_WIDTH, &type, &width, &size);
            failures += answer != GC_ERR_SUCCESS && answer != GC_ERR_NO_DATA && answer != GC_ERR_NOT_AVAILABLE;
        }
    };
    auto readCamera = [&] {
        auto readPort = LORUN_FN(GCReadPort);
        while (!done) {
            std::uint32_t width = 0;
            size_t size = sizeof width;
            failures += readPort(remote, 0x10200010, &width, &size) != GC_ERR_SUCCESS || width != 64;
        }
    };
    std::thread statistics(readFunctions), registers(readCamera);
    Grab(300);
    done = true;
    statistics.join();
    registers.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

// A camera that sends the bare payload: the producer stands in for leader and
// trailer with the image parameters of the camera's SIRM.
class EmulatedAcquisition : public Acquisition {
protected:
    EmulatedAcquisition() : Acquisition(Setup{DefaultCamera + "leader_trailer = 0\n"}) {}
};

TEST_F(EmulatedAcquisition, FramesWithoutLeaderAndTrailer)
{
    StreamVerified(4, 0, 300);
    EXPECT_EQ(1u, timestamps.size()) << "an emulated frame has no timestamp";
}

}

namespace {

TEST_F(Acquisition, TheFiveFlushesAndStatisticsThatAgreeWithTheConsumer)
{
    AnnounceAndQueue(5, 0);
    auto queued = [&] { return StreamInfo<size_t>(STREAM_INFO_NUM_QUEUED); };
    auto waiting = [&] { return StreamInfo<size_t>(STREAM_INFO_NUM_AWAIT_DELIVERY); };
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_INPUT_TO_OUTPUT));
    EXPECT_EQ(0u, queued());
    EXPECT_EQ(5u, waiting()) << "unfilled buffers handed to the consumer";
    EVENT_NEW_BUFFER_DATA data{};
    size_t size = sizeof data;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventGetData)(newBuffer, &data, &size, 0));
    EXPECT_EQ(0, BufferInfo<bool8_t>(data.BufferHandle, BUFFER_INFO_NEW_DATA)) << "no frame in it";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_OUTPUT_DISCARD));
    EXPECT_EQ(0u, waiting());
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_UNQUEUED_TO_INPUT));
    EXPECT_EQ(5u, queued()) << "every announced buffer that was nowhere, the one taken by the consumer too";

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    Grab(100);
    // A consumer waiting while the stream stops takes the frames finished up
    // to the stop; a stop ends no wait, so its next wait runs out.
    GC_ERROR waited = GC_ERR_SUCCESS;
    std::uint64_t taken = 0; // frames filled before the stop, not queued again
    std::thread consumer([&] {
        EVENT_NEW_BUFFER_DATA late{};
        size_t lateSize = sizeof late;
        for (int i = 0; i < 10 && waited == GC_ERR_SUCCESS; ++i) {
            waited = LORUN_FN(EventGetData)(newBuffer, &late, &lateSize, 300);
            taken += waited == GC_ERR_SUCCESS;
        }
    });
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    consumer.join();
    EXPECT_EQ(GC_ERR_TIMEOUT, waited);
    EXPECT_EQ(101u + taken, StreamInfo<std::uint64_t>(STREAM_INFO_NUM_DELIVERED))
        << "every buffer the consumer took: the unfilled one, 100 frames and those taken while stopping";
    EXPECT_GE(Read64(stream, 0x10E0000), 100u) << "StatFrameDelivered counts the frames at the driver";
    EXPECT_EQ(0u, StreamInfo<std::uint64_t>(STREAM_INFO_NUM_UNDERRUN)) << "as fast as buffers come back";

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_TO_INPUT));
    EXPECT_EQ(0u, waiting());
    const size_t inInput = queued();
    EXPECT_GT(inInput, 0u);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    EXPECT_EQ(0u, queued());
    EXPECT_EQ(0u, waiting());
    RevokeAll();
}

}
