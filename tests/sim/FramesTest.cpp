#include "SimHarness.h"

#include "sim/PixelFormats.h"
#include "tests/TestSupport.h"

#include <sys/mman.h>

#include <optional>

using namespace SimTest;
using namespace QEL::Sim::CameraMap;

namespace {

class Frames : public ::testing::Test {
protected:
    explicit Frames(const char* description = kTwoCameras) : h(description) {}

    void SetUp() override
    {
        fd = h.OpenNode();
        // The host tells the camera its IPU restrictions, as the stream channel does.
        const std::uint32_t restrictions[] = {256, 32768, 192, 32, 32768, 1};
        for (int i = 0; i < 6; ++i)
            h.system->GetFirmware(0).WriteValue(Sirm + 56 + 4 * i, restrictions[i]);
    }

    std::size_t SetFormat()
    {
        auto g = h.system->GetFirmware(0).Geometry();
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = g.ipuX;
        format.fmt.pix.height = g.ipuY;
        format.fmt.pix.pixelformat = QEL_PIX_FMT_TP31;
        EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_S_FMT, &format));
        return format.fmt.pix.sizeimage;
    }

    std::uint8_t* AllocateMapped(std::uint32_t index, std::size_t size)
    {
        qel_buffer_request request{index, 1, 1};
        EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_MEM_ALLOC, &request));
        v4l2_buffer buf{};
        buf.index = index;
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_QUERYBUF, &buf));
        EXPECT_EQ(index * 4096u, buf.m.offset) << "a page per index, in the 32-bit offset";
        EXPECT_GE(buf.length, size) << "the answer's other fields intact";
        const std::uint32_t offset = buf.m.offset;
        void* memory = h.system->Mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
        EXPECT_NE(MAP_FAILED, memory);
        return static_cast<std::uint8_t*>(memory);
    }

    int Queue(std::uint32_t index, std::uint32_t memory = V4L2_MEMORY_MMAP, void* userptr = nullptr, std::size_t length = 0)
    {
        v4l2_buffer buf{};
        buf.index = index;
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = memory;
        buf.m.userptr = reinterpret_cast<unsigned long>(userptr);
        buf.length = static_cast<std::uint32_t>(length);
        return h.system->Ioctl(fd, VIDIOC_QBUF, &buf);
    }

    bool Readable(int timeoutMs = 2000)
    {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(fd, &readSet);
        timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        return h.system->Select(fd + 1, &readSet, nullptr, nullptr, &timeout) == 1;
    }

    // Waits for the node to become readable, then dequeues.
    bool Dequeue(v4l2_buffer& buf, std::uint32_t memory = V4L2_MEMORY_MMAP, int timeoutMs = 2000)
    {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(fd, &readSet);
        timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        if (h.system->Select(fd + 1, &readSet, nullptr, nullptr, &timeout) != 1)
            return false;
        buf = v4l2_buffer{};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = memory;
        return h.system->Ioctl(fd, VIDIOC_DQBUF, &buf) == 0;
    }

    // Every byte of a frame: leader, each pixel of the pattern, trailer.
    void VerifyFrame(const std::uint8_t* frame, std::uint64_t blockID)
    {
        auto g = h.system->GetFirmware(0).Geometry();
        qel_frame_leader leader;
        std::memcpy(&leader, frame, sizeof leader);
        EXPECT_EQ(QEL_LEADER_MAGIC, +leader.magic_key);
        EXPECT_EQ(52, +leader.leader_size);
        EXPECT_EQ(blockID, +leader.block_id);
        EXPECT_EQ(g.format->pfnc, +leader.pixel_format);
        EXPECT_EQ(g.width, +leader.size_x);
        EXPECT_EQ(g.height, +leader.size_y);
        const std::uint8_t* image = frame + MaxLeaderSize;
        int wrong = 0;
        for (std::uint32_t y = 0; y < g.height; ++y)
            for (std::uint32_t x = 0; x < g.width; ++x)
                if (ReadSample(image, g.width, x, y, 0, *g.format) != PatternSample(x, y, 0, blockID, *g.format, 0))
                    ++wrong;
        EXPECT_EQ(0, wrong) << "pixels that differ from the pattern";
        qel_frame_trailer trailer;
        std::memcpy(&trailer, frame + MaxLeaderSize + g.payloadSize, sizeof trailer);
        EXPECT_EQ(QEL_TRAILER_MAGIC, +trailer.magic_key);
        EXPECT_EQ(blockID, +trailer.block_id);
        EXPECT_EQ(g.imageBytes, +trailer.valid_payload_size);
        EXPECT_EQ(g.height, +trailer.delivered_size_y);
    }

    Harness h;
    int fd = -1;
};

TEST_F(Frames, MappedBuffersCycleWithRisingBlockIDsAndThePattern)
{
    const std::size_t size = SetFormat();
    std::vector<std::uint8_t*> memory;
    for (std::uint32_t i = 0; i < 3; ++i) {
        memory.push_back(AllocateMapped(i, size));
        ASSERT_EQ(0, Queue(i));
    }
    EXPECT_EQ(-1, Queue(0)) << "a queued buffer cannot be queued again";
    v4l2_buffer buf{};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_DQBUF, &buf));
    EXPECT_EQ(EAGAIN, errno);

    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->GetFirmware(0).WriteValue(AcquisitionStart, 1);
    std::uint32_t expectedIndex = 0;
    for (std::uint64_t block = 1; block <= 30; ++block) {
        ASSERT_TRUE(Dequeue(buf)) << block;
        EXPECT_EQ(expectedIndex, buf.index) << "buffers come back in queue order";
        EXPECT_TRUE(buf.flags & QEL_BUF_FLAG_VALID);
        VerifyFrame(memory[buf.index], block);
        ASSERT_EQ(0, Queue(buf.index));
        expectedIndex = (expectedIndex + 1) % 3;
    }

    // The driver's current rate: the frames of the last second over the time they span.
    qel_stream_statistics stat{};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMSTAT, &stat));
    EXPECT_GE(stat.frames_count, 30u);
    EXPECT_GT(stat.current_frames_count, 0u);
    EXPECT_LT(stat.current_frames_count, stat.frames_count) << "the first frame of the span opens it";
    EXPECT_GT(stat.current_frames_interval, 0u);

    // A new geometry changes the frames that follow.
    h.system->GetFirmware(0).WriteValue(AcquisitionStop, 1);
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &buf.index));
    int unused = 0, filled = 0;
    while (Dequeue(buf, V4L2_MEMORY_MMAP, 50))
        ((buf.flags & QEL_BUF_FLAG_UNUSED) ? unused : filled) += 1;
    EXPECT_EQ(3, unused + filled) << "every queued buffer comes back after the stream-off";
}

TEST_F(Frames, StreamOffAndFlushReportTheirProgress)
{
    const std::size_t size = SetFormat();
    AllocateMapped(0, size);
    ASSERT_EQ(0, Queue(0));
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    int attribute = h.system->Open("/sys/class/video4linux/video0/streamoff", O_RDONLY);
    char state;
    ASSERT_EQ(1, h.system->Read(attribute, &state, 1));
    EXPECT_EQ('0', state);
    std::uint32_t timeout = 100;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
    fd_set exceptSet;
    for (int rounds = 0; state != '2' && rounds < 5; ++rounds) {
        FD_ZERO(&exceptSet);
        FD_SET(attribute, &exceptSet);
        timeval limit{2, 0};
        ASSERT_EQ(1, h.system->Select(attribute + 1, nullptr, nullptr, &exceptSet, &limit));
        h.system->Lseek(attribute, 0, SEEK_SET);
        h.system->Read(attribute, &state, 1);
    }
    EXPECT_EQ('2', state);
    h.system->Close(attribute);
    v4l2_buffer buf;
    ASSERT_TRUE(Dequeue(buf)) << "a buffer the camera never filled comes back";
    EXPECT_EQ(QEL_BUF_FLAG_UNUSED, buf.flags & 0xF0000000u);

    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_FLUSH_FRAMES, nullptr));
    EXPECT_TRUE(Eventually([&] { return h.ReadAttribute("/sys/class/video4linux/video0/flush") == "2\n"; }));
    qel_buffer_request request{0, 1, 1};
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_MEM_FREE, &request));

    // A stream-off that never completes.
    AllocateMapped(0, size);
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->InjectFault(0, Fault::StreamOffHangs, 1);
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
    EXPECT_FALSE(h.system->IsFaultArmed(0, Fault::StreamOffHangs)) << "the stream-off met the fault";
    // An observation window, longer than a stream-off takes above: the cause is proven.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ("1\n", h.ReadAttribute("/sys/class/video4linux/video0/streamoff"));
}

TEST_F(Frames, UserPointerBuffers)
{
    const std::size_t size = SetFormat();
    v4l2_requestbuffers request{};
    request.count = 2;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_USERPTR;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_REQBUFS, &request));
    std::vector<std::vector<std::uint8_t>> memory(2, std::vector<std::uint8_t>(size + 512));
    // The driver needs its alignment; vectors give none, so place the buffers by hand.
    std::vector<std::uint8_t*> aligned;
    for (auto& block : memory)
        aligned.push_back(reinterpret_cast<std::uint8_t*>((reinterpret_cast<std::uintptr_t>(block.data()) + 255) / 256 * 256));
    EXPECT_EQ(-1, Queue(0, V4L2_MEMORY_USERPTR, aligned[0] + 4, size)) << "off the driver's alignment";
    EXPECT_EQ(-1, Queue(0, V4L2_MEMORY_USERPTR, aligned[0], size - 1)) << "too short for the frame";
    ASSERT_EQ(0, Queue(0, V4L2_MEMORY_USERPTR, aligned[0], size + 256));
    ASSERT_EQ(0, Queue(1, V4L2_MEMORY_USERPTR, aligned[1], size + 256));
    EXPECT_EQ(-1, Queue(2, V4L2_MEMORY_USERPTR, aligned[0], size + 256)) << "only two were declared";
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->GetFirmware(0).StartAcquisition();
    v4l2_buffer buf;
    for (std::uint64_t block = 1; block <= 6; ++block) {
        ASSERT_TRUE(Dequeue(buf, V4L2_MEMORY_USERPTR));
        EXPECT_EQ(reinterpret_cast<unsigned long>(aligned[buf.index]), buf.m.userptr);
        VerifyFrame(aligned[buf.index], block);
        ASSERT_EQ(0, Queue(buf.index, V4L2_MEMORY_USERPTR, aligned[buf.index], size + 256));
    }
    h.system->GetFirmware(0).StopAcquisition();
    std::uint32_t timeout = 0;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
}

TEST_F(Frames, GeometryWritesChangeTheFrames)
{
    h.system->GetFirmware(0).WriteValue(Width, 128);
    h.system->GetFirmware(0).WriteValue(PixelFormatRegister, PixelFormatByName("Mono12").pfnc);
    const std::size_t size = SetFormat();
    auto g = h.system->GetFirmware(0).Geometry();
    EXPECT_EQ(128u * 16 * 2, g.imageBytes);
    EXPECT_EQ(size, MaxLeaderSize + g.payloadSize + MaxTrailerSize) << "the IPU geometry holds the whole frame";
    std::uint8_t* memory = AllocateMapped(0, size);
    ASSERT_EQ(0, Queue(0));
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->GetFirmware(0).StartAcquisition();
    v4l2_buffer buf;
    ASSERT_TRUE(Dequeue(buf));
    VerifyFrame(memory, 1);
    h.system->GetFirmware(0).StopAcquisition();
    std::uint32_t timeout = 0;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
    EXPECT_THROW(h.system->GetFirmware(0).WriteValue(Width, 4000), std::invalid_argument);
}

// With one buffer the camera fills a frame only when it is queued, so each
// fault armed before the queueing hits exactly that frame.
TEST_F(Frames, InjectedFrameFaults)
{
    const std::size_t size = SetFormat();
    std::uint8_t* memory = AllocateMapped(0, size);
    v4l2_buffer buf;
    auto frameWith = [&](std::optional<Fault> fault, std::uint64_t value = 0) {
        if (fault)
            h.system->InjectFault(0, *fault, 1, value);
        EXPECT_EQ(0, Queue(0));
        EXPECT_TRUE(Dequeue(buf));
        qel_frame_leader leader;
        std::memcpy(&leader, memory, sizeof leader);
        return leader;
    };
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->GetFirmware(0).StartAcquisition();
    EXPECT_NE(QEL_LEADER_MAGIC, +frameWith(Fault::BadLeaderKey).magic_key);
    EXPECT_EQ(1u + 3 + 1, +frameWith(Fault::BlockIDGap, 3).block_id) << "three block IDs were skipped";
    frameWith(Fault::BadTrailerKey);
    qel_frame_trailer trailer;
    std::memcpy(&trailer, memory + MaxLeaderSize + h.system->GetFirmware(0).Geometry().payloadSize, sizeof trailer);
    EXPECT_NE(QEL_TRAILER_MAGIC, +trailer.magic_key);
    frameWith(Fault::IncompleteFrame);
    EXPECT_EQ(QEL_BUF_FLAG_INVALID_31, buf.flags & 0xF0000000u);
    frameWith(Fault::IncompleteFrame28);
    EXPECT_EQ(QEL_BUF_FLAG_INVALID_28, buf.flags & 0xF0000000u);
    frameWith(Fault::UnknownFrameState);
    EXPECT_EQ(0u, buf.flags & 0xF0000000u);
    EXPECT_EQ(0u, +frameWith(Fault::ZeroFrame).magic_key);
    EXPECT_EQ(QEL_LEADER_MAGIC, +frameWith(std::nullopt).magic_key) << "the next frame is whole again";

    h.system->InjectFault(0, Fault::DQBUFError, 1, EINVAL);
    EXPECT_EQ(0, Queue(0));
    ASSERT_TRUE(Readable());
    buf = v4l2_buffer{};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_DQBUF, &buf));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_DQBUF, &buf)) << "the frame stays in the driver";
    h.system->GetFirmware(0).StopAcquisition();
    std::uint32_t timeout = 0;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
}

class PreparedFrames : public Frames {
protected:
    PreparedFrames()
        : Frames("[camera0]\nwidth = 64\nheight = 16\nframe_rate = 0\nbus_timing = 0\nprepared_frames = 1\n")
    {
    }
};

// The image is drawn into each buffer once; after that a frame costs the
// driver its leader and trailer only, which still carry each frame's block ID.
TEST_F(PreparedFrames, EachBufferGetsItsImageOnceThenOnlyLeaderAndTrailer)
{
    const std::size_t size = SetFormat();
    std::uint8_t* memory[2] = {AllocateMapped(0, size), AllocateMapped(1, size)};
    ASSERT_EQ(0, Queue(0));
    ASSERT_EQ(0, Queue(1));
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->GetFirmware(0).WriteValue(AcquisitionStart, 1);
    const std::size_t leaderSize = MaxLeaderSize;
    const std::uint64_t payloadSize = h.system->GetFirmware(0).Geometry().payloadSize;
    v4l2_buffer buf{};
    for (std::uint64_t block = 1; block <= 6; ++block) {
        ASSERT_TRUE(Dequeue(buf)) << block;
        const std::uint8_t* frame = memory[buf.index];
        qel_frame_leader leader;
        std::memcpy(&leader, frame, sizeof leader);
        qel_frame_trailer trailer;
        std::memcpy(&trailer, frame + leaderSize + payloadSize, sizeof trailer);
        EXPECT_EQ(block, leader.block_id);
        EXPECT_EQ(block, trailer.block_id);
        if (block <= 2)
            memory[buf.index][leaderSize] = 0xAB; // a mark in the image, left alone by later frames
        else
            EXPECT_EQ(0xAB, frame[leaderSize]) << "frame " << block << " drew the image again";
        ASSERT_EQ(0, Queue(buf.index));
    }
    h.system->GetFirmware(0).WriteValue(AcquisitionStop, 1);
    std::uint32_t timeout = 0;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
}

TEST(FrameRate, AFixedRateLosesFramesWithoutBuffers)
{
    Harness h;
    int fd = h.OpenNode("video1");
    auto g = h.system->GetFirmware(1).Geometry();
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = g.ipuX;
    format.fmt.pix.height = g.ipuY;
    format.fmt.pix.pixelformat = QEL_PIX_FMT_TP31;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_S_FMT, &format));
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMON_EX, nullptr));
    h.system->GetFirmware(1).StartAcquisition();
    // 200 frames a second with no buffer queued.
    EXPECT_TRUE(Eventually([&] { return h.system->GetFramesLost(1) > 5u; }));
    h.system->GetFirmware(1).StopAcquisition();
    std::uint32_t timeout = 0;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout));
    EXPECT_GT(h.system->GetFramesLost(1), 5u);
    EXPECT_EQ(0u, h.system->GetFramesSent(1));
}

TEST(PixelFormats, PackedSamplesReadBack)
{
    for (const auto& format : PixelFormats()) {
        SCOPED_TRACE(format.name);
        std::vector<std::uint8_t> image(PayloadBytes(24, 5, format) + 8, 0);
        RenderPattern(image.data(), 24, 5, format, 77, 0);
        for (std::uint32_t y = 0; y < 5; ++y)
            for (std::uint32_t x = 0; x < 24; ++x)
                for (std::uint32_t s = 0; s < format.samples; ++s)
                    ASSERT_EQ(PatternSample(x, y, s, 77, format, 0), ReadSample(image.data(), 24, x, y, s, format));
    }
    EXPECT_EQ(5u, PayloadBytes(4, 1, PixelFormatByName("Mono10p")));
    EXPECT_EQ(0x3FFu & (3 * 3 + 5 * 1 + 9), PatternSample(3, 1, 0, 9, PixelFormatByName("Mono10p"), 0));
}

}
