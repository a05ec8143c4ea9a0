// The edges of a data stream's buffers through the built producer: buffers
// announced and revoked while frames arrive, what a revoke hands back, a close
// that leaves nothing of its buffers behind, the stream registers written
// while frames finish, and buffers of another stream.
#include "tests/consumer/AcquisitionFixture.h"

#include <algorithm>
#include <list>

namespace {

constexpr std::uint8_t Guard = 0xEE;

// Buffers come and go while the stream runs (GCInitLibEx with bit 0).
class DynamicBuffers : public Acquisition {
protected:
    explicit DynamicBuffers(const std::string& camera = DefaultCamera, const std::string& config = "")
        : Acquisition(Setup{camera, "", config, true})
    {
    }

    // Consumer memory of the payload size that lives as long as the test.
    std::uint8_t* NewBlock()
    {
        extra.emplace_back(payloadSize + Alignment);
        auto& block = extra.back();
        return block.data() + (Alignment - reinterpret_cast<std::uintptr_t>(block.data()) % Alignment) % Alignment;
    }

    // Consumer memory announced and queued now; its index in `buffers`.
    std::size_t AddOwn()
    {
        return Add(LORUN_FN(DSAnnounceBuffer)(stream, NewBlock(), payloadSize, UserPointer(), &added),
                   "DSAnnounceBuffer");
    }

    std::size_t AddAllocated()
    {
        return Add(LORUN_FN(DSAllocAndAnnounceBuffer)(stream, payloadSize, UserPointer(), &added),
                   "DSAllocAndAnnounceBuffer");
    }

    // Takes a buffer out for good; its place in `buffers` stays empty.
    void Revoke(std::size_t index)
    {
        void* base = nullptr;
        void* user = nullptr;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSRevokeBuffer)(stream, buffers[index], &base, &user))
            << producer.LastError().second;
        EXPECT_EQ(index, reinterpret_cast<std::uintptr_t>(user));
        buffers[index] = nullptr;
        ++revoked;
    }

    std::size_t Live() const
    {
        return static_cast<std::size_t>(std::count_if(buffers.begin(), buffers.end(), [](BUFFER_HANDLE b) { return b; }));
    }

    void* UserPointer() const { return reinterpret_cast<void*>(buffers.size()); }

    std::size_t Add(GC_ERROR result, const char* call)
    {
        EXPECT_EQ(GC_ERR_SUCCESS, result) << call << ": " << producer.LastError().second;
        if (result != GC_ERR_SUCCESS)
            return buffers.size();
        buffers.push_back(added);
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, added)) << producer.LastError().second;
        return buffers.size() - 1;
    }

    std::list<std::vector<std::uint8_t>> extra;
    BUFFER_HANDLE added = nullptr;
    std::size_t revoked = 0;
};

// 300 frames while own and allocated buffers join and leave the stream: every
// pixel right, every buffer that joined filled, the counts where they belong.
TEST_F(DynamicBuffers, ThreeHundredFramesWhileBuffersJoinAndLeave)
{
    AnnounceAndQueue(3, 1);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;

    std::vector<std::uint8_t> tooSmall(payloadSize - 1);
    BUFFER_HANDLE refused = nullptr;
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE,
              LORUN_FN(DSAnnounceBuffer)(stream, tooSmall.data(), tooSmall.size(), nullptr, &refused));
    EXPECT_EQ("Cannot announce buffers that are smaller than the stream payload size during acquisition.",
              producer.LastError().second);
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, LORUN_FN(DSAllocAndAnnounceBuffer)(stream, payloadSize - 1, nullptr, &refused));

    std::vector<std::size_t> joined;
    for (std::size_t frame = 0; frame < 300; ++frame) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_NO_FATAL_FAILURE(buffer = TakeChecked(frame));
        const std::size_t index =
            static_cast<std::size_t>(std::find(buffers.begin(), buffers.end(), buffer) - buffers.begin());
        if (frame % 20 == 10 && Live() > 3) {
            ASSERT_NO_FATAL_FAILURE(Revoke(index));
            continue;
        }
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
        if (frame % 20 == 0 && frame < 250)
            joined.push_back(frame % 40 == 0 ? AddOwn() : AddAllocated());
    }
    EXPECT_EQ(0, wrongPixels);
    EXPECT_GE(revoked, 10u);
    for (std::size_t index : joined)
        EXPECT_GT(seen[index], 0) << "buffer " << index << " joined while streaming and was never filled";
    EXPECT_EQ(Live(), StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD)) << producer.LastError().second;
    for (std::size_t i = 0; i < buffers.size(); ++i) {
        if (buffers[i]) {
            ASSERT_NO_FATAL_FAILURE(Revoke(i));
        }
    }
    EXPECT_EQ(0u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));
}

// In libcsi's user-pointer modes the driver's count of buffers is fixed when
// the stream starts: a buffer that joins takes the place of one that left.
class UserPointerDynamicBuffers : public DynamicBuffers, public ::testing::WithParamInterface<bool> {
protected:
    UserPointerDynamicBuffers() : DynamicBuffers(DefaultCamera + "leader_trailer = 0\n", "enable_userptr=1\n") {}
};

TEST_P(UserPointerDynamicBuffers, AJoiningBufferTakesThePlaceOfOneThatLeft)
{
    const bool allocated = GetParam();
    AnnounceAndQueue(allocated ? 0 : 3, allocated ? 3 : 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    auto add = [&] { return allocated ? AddAllocated() : AddOwn(); };
    Grab(10);

    BUFFER_HANDLE extraBuffer = nullptr;
    const GC_ERROR beyond =
        allocated ? LORUN_FN(DSAllocAndAnnounceBuffer)(stream, payloadSize, nullptr, &extraBuffer)
                  : LORUN_FN(DSAnnounceBuffer)(stream, NewBlock(), payloadSize, nullptr, &extraBuffer);
    EXPECT_NE(GC_ERR_SUCCESS, beyond) << "one more than the driver was told of at the start";
    EXPECT_EQ(3u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED)) << "nothing half announced";

    std::vector<std::size_t> joined;
    for (std::size_t round = 0; round < 5; ++round) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_NO_FATAL_FAILURE(buffer = TakeChecked(round));
        ASSERT_NO_FATAL_FAILURE(
            Revoke(static_cast<std::size_t>(std::find(buffers.begin(), buffers.end(), buffer) - buffers.begin())));
        joined.push_back(add());
        Grab(10);
    }
    EXPECT_EQ(0, wrongPixels);
    for (std::size_t index : joined)
        EXPECT_GT(seen[index], 0) << "buffer " << index << " joined while streaming and was never filled";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

INSTANTIATE_TEST_SUITE_P(OwnAndAllocated, UserPointerDynamicBuffers, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Allocated" : "Own"; });

// The memory of an allocated buffer goes with its revoke: no address of it is
// handed out. A consumer's buffer gives its own address back.
// In the user-pointer modes a consumer's buffer is the whole frame, so the
// camera sends no leader and trailer there.
class RevokedMemory : public Acquisition, public ::testing::WithParamInterface<bool> {
protected:
    RevokedMemory()
        : Acquisition(GetParam() ? Setup{DefaultCamera + "leader_trailer = 0\n", "", "enable_userptr=1\n"} : Setup{})
    {
    }
};

TEST_P(RevokedMemory, AnAllocatedBufferHandsOutNoAddressOnceRevoked)
{
    StreamVerified(1, 2, 20);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    for (std::size_t i = 0; i < buffers.size(); ++i) {
        void* base = reinterpret_cast<void*>(1);
        void* user = nullptr;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSRevokeBuffer)(stream, buffers[i], &base, &user))
            << producer.LastError().second;
        EXPECT_EQ(i, reinterpret_cast<std::uintptr_t>(user));
        if (i == 0) {
            EXPECT_EQ(OwnBuffer(0), base) << "the consumer's memory";
        } else {
            EXPECT_EQ(nullptr, base) << "allocated buffer " << i << ": its memory is gone";
        }
    }
    buffers.clear();
    // Allocated again, the stream runs as before.
    StreamVerified(0, 3, 20);
}

INSTANTIATE_TEST_SUITE_P(MemoryModes, RevokedMemory, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "UserPointer" : "Mapped"; });

// A close without revokes leaves nothing below the queue: memory announced
// again at the same address after the image shrank is filled to its new end.
const std::string TallCamera = "width = 64\nheight = 400\npixel_format = Mono8\nframe_rate = 0\n";

class CloseWithoutRevoke : public Acquisition, public ::testing::WithParamInterface<bool> {
protected:
    CloseWithoutRevoke()
        : Acquisition(GetParam() ? Setup{TallCamera + "leader_trailer = 0\n", "", "enable_userptr=1\n"}
                                 : Setup{TallCamera})
    {
        height = 400;
    }

    void CloseAndShrink()
    {
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSClose)(stream)) << producer.LastError().second;
        PORT_HANDLE remote = nullptr;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
        std::uint32_t shorter = height / 2;
        size_t size = sizeof shorter;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCWritePort)(remote, 0x10200014, &shorter, &size))
            << producer.LastError().second;
        height = shorter;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevOpenDataStream)(device, "DEV_CAM-1_DS_0x0", &stream));
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCRegisterEvent)(stream, EVENT_NEW_BUFFER, &newBuffer));
        payloadSize = StreamInfo<size_t>(STREAM_INFO_PAYLOAD_SIZE);
        buffers.clear();
        seen.clear();
        lastFrameId = 0;
    }
};

TEST_P(CloseWithoutRevoke, OwnMemoryAtTheSameAddressIsFilledToItsNewEndOnly)
{
    AnnounceAndQueue(3, 0);
    const std::size_t oldPayload = payloadSize;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(10);
    ASSERT_NO_FATAL_FAILURE(CloseAndShrink());
    ASSERT_LT(payloadSize, oldPayload);

    for (std::size_t i = 0; i < 3; ++i) {
        std::fill(OwnBuffer(i), OwnBuffer(i) + oldPayload, Guard);
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAnnounceBuffer)(stream, OwnBuffer(i), payloadSize,
                                                             reinterpret_cast<void*>(i), &buffer))
            << producer.LastError().second;
        buffers.push_back(buffer);
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
    }
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(30);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ(0, wrongPixels);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_GT(seen[i], 0);
        const std::uint8_t* end = OwnBuffer(i) + payloadSize;
        EXPECT_EQ(end + (oldPayload - payloadSize), std::find_if(end, end + (oldPayload - payloadSize),
                                                                 [](std::uint8_t b) { return b != Guard; }))
            << "buffer " << i << " written past its end";
    }
}

TEST_P(CloseWithoutRevoke, AllocatedBuffersGoWithTheClose)
{
    StreamVerified(0, 3, 10);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    ASSERT_NO_FATAL_FAILURE(CloseAndShrink());
    StreamVerified(0, 3, 30);
    EXPECT_EQ(0, wrongPixels);
}

INSTANTIATE_TEST_SUITE_P(MemoryModes, CloseWithoutRevoke, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "UserPointer" : "Mapped"; });

// The payload size mode written while frames finish: the register's write
// takes the queue's lock before the stream channel's, as a frame does.
TEST_F(Acquisition, PayloadSizeModeWrittenWhileFramesFinish)
{
    // Larger than the payload, so that Manual's first value, taken from them, fits them too.
    AnnounceAndQueue(4, 0, payloadSize + 4096);
    auto writePort = LORUN_FN(GCWritePort);
    std::atomic<bool> done{false};
    std::atomic<int> accepted{0}, refused{0}, failed{0};
    std::thread writer([&] {
        for (std::uint32_t i = 0; !done; ++i) {
            std::uint32_t mode = (i % 2) ? 2 : 0; // Manual takes its first value from the announced buffers
            size_t size = sizeof mode;
            const GC_ERROR result = writePort(stream, 0x1090000, &mode, &size);
            if (result == GC_ERR_SUCCESS)
                ++accepted;
            else if (result == GC_ERR_NOT_AVAILABLE)
                ++refused; // while streaming
            else
                ++failed;
        }
    });
    for (int round = 0; round < 5; ++round) {
        // The writer may leave Manual set: a start then runs in it.
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
            << producer.LastError().second;
        Grab(20);
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_TO_INPUT));
    }
    done = true;
    writer.join();
    EXPECT_EQ(0, failed.load());
    EXPECT_GT(refused.load(), 0) << "writes while streaming";
    EXPECT_EQ(0, wrongPixels);
}

// Two cameras whose second has the taller image the first changes to.
class CamerasOfTwoSizes : public Acquisition {
protected:
    CamerasOfTwoSizes()
        : Acquisition(Setup{DefaultCamera + "[camera1]\nguid = CAM-2\nnode = video1\nbus = 3\nbus_timing = 0\n" +
                            TallCameraKeys})
    {
    }
    static inline const std::string TallCameraKeys = "width = 64\nheight = 400\npixel_format = Mono8\nframe_rate = 0\n";
};

// The frame size each camera's driver was told is the camera's own: the other
// camera told of the size this one changes to does not spare telling it.
TEST_F(CamerasOfTwoSizes, EachCameraIsToldItsOwnFrameSize)
{
    StreamVerified(3, 0, 10);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();
    // The tall camera's frames announced: its driver now has the tall size.
    DEV_HANDLE tallDevice = nullptr;
    DS_HANDLE tall = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-2", DEVICE_ACCESS_CONTROL, &tallDevice))
        << producer.LastError().second;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevOpenDataStream)(tallDevice, "DEV_CAM-2_DS_0x0", &tall));
    size_t tallPayload = 0;
    INFO_DATATYPE type = 0;
    size_t size = sizeof tallPayload;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSGetInfo)(tall, STREAM_INFO_PAYLOAD_SIZE, &type, &tallPayload, &size));
    for (int i = 0; i < 3; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAllocAndAnnounceBuffer)(tall, tallPayload, nullptr, &buffer));
    }

    // The first camera grows to the same size and streams at it.
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    std::uint32_t taller = 400;
    size = sizeof taller;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCWritePort)(remote, 0x10200014, &taller, &size)) << producer.LastError().second;
    height = taller;
    payloadSize = StreamInfo<size_t>(STREAM_INFO_PAYLOAD_SIZE);
    ASSERT_EQ(tallPayload, payloadSize);
    seen.clear();
    lastFrameId = 0;
    StreamVerified(3, 0, 20);
    EXPECT_EQ(0, wrongPixels);
}

// In a user-pointer mode the driver is told of buffers up to the highest
// index in use, which a revoke can leave above the number of buffers.
TEST_P(UserPointerDynamicBuffers, AStreamStartsAfterItsFirstBufferWasRevoked)
{
    const bool allocated = GetParam();
    AnnounceAndQueue(allocated ? 0 : 4, allocated ? 4 : 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    ASSERT_NO_FATAL_FAILURE(Revoke(0));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_UNQUEUED_TO_INPUT));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(30);
    EXPECT_EQ(0, wrongPixels);
    for (std::size_t i = 1; i < 4; ++i)
        EXPECT_GT(seen[i], 0) << "buffer " << i;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

// Two cameras: a buffer of one camera's stream is no buffer of the other's.
class TwoStreams : public Acquisition {
protected:
    TwoStreams()
        : Acquisition(Setup{DefaultCamera + "chunk_data = 1\n[camera1]\nguid = CAM-2\nnode = video1\nbus = 3\nbus_timing = 0\n" + DefaultCamera})
    {
    }
};

TEST_F(TwoStreams, ABufferOfAnotherStreamIsAnInvalidBuffer)
{
    StreamVerified(3, 0, 5);
    DEV_HANDLE otherDevice = nullptr;
    DS_HANDLE other = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-2", DEVICE_ACCESS_CONTROL, &otherDevice))
        << producer.LastError().second;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevOpenDataStream)(otherDevice, "DEV_CAM-2_DS_0x0", &other));
    SINGLE_CHUNK_DATA chunk[2] = {};
    size_t count = 2;
    EXPECT_EQ(GC_ERR_INVALID_BUFFER, LORUN_FN(DSGetBufferChunkData)(other, buffers[0], chunk, &count));
    EXPECT_EQ("Invalid buffer passed.", producer.LastError().second);
    count = 2;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSGetBufferChunkData)(stream, buffers[0], chunk, &count))
        << "its own stream parses it";
    EXPECT_EQ(2u, count);
}

}
