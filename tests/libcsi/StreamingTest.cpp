#include "libcsi/Config.h"
#include "libcsi/Diagnostics.h"
#include "libcsi/Log.h"
#include "libcsi/OsSeam.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "sim/CameraMap.h"
#include "sim/ObservedSystem.h"
#include "sim/PixelFormats.h"
#include "sim/VirtualSystem.h"
#include "tests/TestSupport.h"
#include "tests/libcsi/ReportCollector.h"
#include "tests/sim/SimHarness.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>

using namespace QEL;

namespace {

const char* kCamera = "[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\nmode_switch_delay_ms = 2\n";

// A consumer of libcsi: frames of its own memory, announced, queued and
// requeued from the callback, every pixel of every valid frame checked.
class Stream : public ::testing::Test {
protected:
    struct Buffer {
        lib_frame_transfer transfer{};
        frame_handle_t* handle = nullptr;
        std::uint8_t* memory = nullptr;
    };

    void Open(const char* description = kCamera)
    {
        system = std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(description));
        Os::Install(system);
        ASSERT_EQ(LIBCSI_OK, libcsi_init());
        ASSERT_EQ(LIBCSI_OK, libcsi_update_device_list());
        ASSERT_EQ(LIBCSI_OK, libcsi_open_device(0, &device));
        geometry = system->GetFirmware(0).Geometry();
    }

    void TearDown() override
    {
        // A test's observer captures its own locals: the close below must not reach it.
        if (system)
            Os::Install(system);
        if (device) {
            EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
        }
        for (Buffer& b : buffers)
            if (b.memory && !allocated)
                std::free(b.memory);
        if (system) {
            EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
            Os::Install(nullptr);
        }
        LibCSIImpl::TheConfig() = savedConfig;
    }

    lib_frame_transfer Sizes() const
    {
        lib_frame_transfer t{};
        t.m_nLeaderSize = bare ? 0 : Sim::CameraMap::MaxLeaderSize;
        t.m_nPayloadSize = geometry.payloadSize;
        t.m_nTrailerSize = bare ? 0 : Sim::CameraMap::MaxTrailerSize;
        return t;
    }

    std::int32_t Announce(std::size_t count, bool allocate = false, std::size_t misalign = 0)
    {
        allocated = allocate;
        const std::size_t first = buffers.size();
        buffers.resize(first + count);
        for (std::size_t i = first; i < buffers.size(); ++i) {
            Buffer& b = buffers[i];
            b.transfer = Sizes();
            std::int32_t result;
            if (allocate) {
                result = libcsi_alloc_and_announce_frame(device, geometry.ipuX, geometry.ipuY, &b.transfer, &b.handle);
                b.memory = reinterpret_cast<std::uint8_t*>(b.transfer.m_pLeader);
            } else {
                b.memory = static_cast<std::uint8_t*>(std::aligned_alloc(256, 1 << 20));
                std::uint8_t* start = b.memory + misalign;
                b.transfer.m_pLeader = bare ? 0 : reinterpret_cast<std::uintptr_t>(start);
                b.transfer.m_pPayload = reinterpret_cast<std::uintptr_t>(start) + b.transfer.m_nLeaderSize;
                b.transfer.m_pTrailer = bare ? 0 : b.transfer.m_pPayload + b.transfer.m_nPayloadSize;
                result = libcsi_announce_frame(device, geometry.ipuX, geometry.ipuY, &b.transfer, &b.handle);
            }
            if (result != LIBCSI_OK)
                return result;
        }
        return LIBCSI_OK;
    }

    void QueueAll()
    {
        for (Buffer& b : buffers)
            ASSERT_EQ(LIBCSI_OK, libcsi_queue_frame(device, b.handle, &Stream::OnFrame, this));
    }

    static void OnFrame(void* context, frame_handle_t* frame, lib_frame_transfer* transfer, std::uint64_t,
                        std::uint32_t status)
    {
        auto* self = static_cast<Stream*>(context);
        self->Check(transfer, status);
        if (self->requeue)
            libcsi_queue_frame(self->device, frame, &Stream::OnFrame, self);
    }

    void Check(const lib_frame_transfer* transfer, std::uint32_t status)
    {
        std::uint64_t blockID = 0;
        int wrong = 0;
        if (status == LIBCSI_FRAME_VALID && transfer->m_nLeaderSize) { // the pattern moves with the leader's block ID
            const auto* leader = reinterpret_cast<const qel_frame_leader*>(transfer->m_pLeader);
            blockID = leader->block_id;
            const auto* image = reinterpret_cast<const std::uint8_t*>(transfer->m_pPayload);
            for (std::uint32_t y = 0; y < geometry.height; ++y)
                for (std::uint32_t x = 0; x < geometry.width; ++x)
                    for (std::uint32_t sample = 0; sample < geometry.format->samples; ++sample)
                        if (Sim::ReadSample(image, geometry.width, x, y, sample, *geometry.format) !=
                            Sim::PatternSample(x, y, sample, blockID, *geometry.format, 0))
                            ++wrong;
        }
        std::lock_guard<std::mutex> lock(mutex);
        ++statuses[status];
        wrongPixels += wrong;
        if (blockID)
            blockIDs.push_back(blockID);
        changed.notify_all();
    }

    bool AwaitFrames(std::size_t count, int seconds = 10)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(seconds), [&] {
            std::size_t total = 0;
            for (auto& entry : statuses)
                total += entry.second;
            return total >= count;
        });
    }

    bool AwaitValidFrames(std::size_t count, int seconds)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(seconds),
                                [&] { return statuses[LIBCSI_FRAME_VALID] >= count; });
    }

    std::size_t Count(std::uint32_t status)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return statuses[status];
    }

    void StartCamera() { system->GetFirmware(0).StartAcquisition(); }

    void RevokeAll()
    {
        for (Buffer& b : buffers)
            EXPECT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, b.handle));
    }

    void StreamAndVerify(std::size_t count)
    {
        ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
        VerifyStream(count);
    }

    // Lets the started stream deliver `count` frames and checks every pixel
    // of each, that block IDs rise one by one and that nothing was dropped.
    void VerifyStream(std::size_t count)
    {
        StartCamera();
        ASSERT_TRUE(AwaitFrames(count, 30));
        requeue = false;
        ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
        EXPECT_EQ(0, wrongPixels);
        EXPECT_GE(Count(LIBCSI_FRAME_VALID), count);
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (std::size_t i = 1; i < blockIDs.size(); ++i)
                ASSERT_EQ(blockIDs[i - 1] + 1, blockIDs[i]) << "block IDs rise one by one";
        }
        EXPECT_EQ(0u, LibCSIImpl::DroppedFrameCount(device));
        EXPECT_EQ(LIBCSI_OK, libcsi_flush_frames(device));
        RevokeAll();
    }

    std::shared_ptr<Sim::VirtualSystem> system;
    device_handle_t* device = nullptr;
    Sim::CameraFirmware::FrameGeometry geometry{};
    std::deque<Buffer> buffers; // libcsi keeps pointers to their transfer records: they must not move
    bool allocated = false;
    bool bare = false; // frames of the payload alone, as a camera without leader and trailer sends them
    std::atomic<bool> requeue{true};
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::uint32_t, std::size_t> statuses;
    std::vector<std::uint64_t> blockIDs;
    int wrongPixels = 0;
    LibCSIImpl::Config savedConfig = LibCSIImpl::TheConfig();
};

std::string CameraIn(const char* format)
{
    return std::string(kCamera) + "pixel_format = " + format + "\n";
}

TEST_F(Stream, AnnouncedFramesAreCopiedAndEveryPixelIsRight)
{
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(4));
    QueueAll();
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, libcsi_queue_frame(device, buffers[0].handle, &Stream::OnFrame, this))
        << "a frame waiting for the stream cannot be queued again";
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, libcsi_queue_frame(device, buffers[0].handle, &Stream::OnFrame, this))
        << "nor can a frame in the driver";
    VerifyStream(300);
}

// The names `top -H` and a debugger show; a stopped stream leaves no frame thread behind.
TEST_F(Stream, FrameThreadsAreNamedAndEndWithTheStream)
{
    Open();
    EXPECT_EQ(1, ThreadsNamed("csi-discovery"));
    EXPECT_EQ(1, ThreadsNamed("csi-callback")) << "one per open device";
    ASSERT_EQ(LIBCSI_OK, Announce(4));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitFrames(10, 30));
    EXPECT_EQ(1, ThreadsNamed("csi-dequeue"));
    EXPECT_EQ(1, ThreadsNamed("vcam-frames"));
    requeue = false;
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    EXPECT_TRUE(Eventually([] { return ThreadsNamed("csi-dequeue") == 0 && ThreadsNamed("vcam-frames") == 0; }));
    EXPECT_EQ(LIBCSI_OK, libcsi_flush_frames(device));
    RevokeAll();
}

TEST_F(Stream, AllocatedMappedFramesNeedNoCopy)
{
    Open(CameraIn("Mono12").c_str());
    ASSERT_EQ(LIBCSI_OK, Announce(3, true));
    EXPECT_NE(0u, buffers[0].transfer.m_pPayload) << "the library fills the pointers";
    QueueAll();
    StreamAndVerify(300);
}

TEST_F(Stream, ExternalUserPointerFrames)
{
    LibCSIImpl::TheConfig().enableUserptr = true;
    Open(CameraIn("RGB8").c_str());
    EXPECT_EQ(LIBCSI_ALIGNMENT_INVALID, Announce(1, false, 4)) << "4 bytes off the driver's alignment";
    for (Buffer& b : buffers)
        std::free(b.memory);
    buffers.clear();
    // The driver fills one block from the leader on: a payload elsewhere would be overrun.
    lib_frame_transfer apart = Sizes();
    std::vector<std::uint8_t> leader(apart.m_nLeaderSize + 256), rest(apart.m_nPayloadSize + apart.m_nTrailerSize + 256);
    apart.m_pLeader = (reinterpret_cast<std::uintptr_t>(leader.data()) + 255) / 256 * 256;
    apart.m_pPayload = (reinterpret_cast<std::uintptr_t>(rest.data()) + 255) / 256 * 256;
    apart.m_pTrailer = apart.m_pPayload + apart.m_nPayloadSize;
    frame_handle_t* handle = nullptr;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_announce_frame(device, geometry.ipuX, geometry.ipuY, &apart, &handle));
    apart.m_pPayload = apart.m_pLeader + apart.m_nLeaderSize;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_announce_frame(device, geometry.ipuX, geometry.ipuY, &apart, &handle))
        << "a trailer apart from the payload";
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    QueueAll();
    StreamAndVerify(300);
}

TEST_F(Stream, ARefusedAnnounceGivesItsBufferIndexBack)
{
    LibCSIImpl::TheConfig().enableUserptr = true;
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    // Index 0 is free again; the refused frame takes it, and must give it back,
    // or the next frame would share index 2 with a frame still announced.
    ASSERT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, buffers.front().handle));
    std::free(buffers.front().memory);
    buffers.pop_front();
    ASSERT_EQ(LIBCSI_ALIGNMENT_INVALID, Announce(1, false, 4));
    std::free(buffers.back().memory);
    buffers.pop_back();
    ASSERT_EQ(LIBCSI_OK, Announce(1));
    QueueAll();
    StreamAndVerify(300);
}

// Beyond the driver's 32-bit image size a frame would be allocated, mapped and
// described cut short (and on a 32-bit board its size_t would wrap).
TEST_F(Stream, FramesLargerThanTheDriversImageSizeAreRefused)
{
    LibCSIImpl::TheConfig().enableUserptr = true;
    Open();
    constexpr std::uint64_t Gib = 1ull << 30;
    std::vector<std::uint8_t> memory(256);
    for (const bool allocate : {false, true}) {
        for (const auto& [leader, payload, trailer] :
             {std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>{0, 4 * Gib, 0},
              {3 * Gib, Gib, 0},
              {0, Gib, ~0ull},
              {~0ull, ~0ull, 2}}) {
            SCOPED_TRACE(std::to_string(leader) + "+" + std::to_string(payload) + "+" + std::to_string(trailer));
            lib_frame_transfer t{};
            t.m_nLeaderSize = leader;
            t.m_nPayloadSize = payload;
            t.m_nTrailerSize = trailer;
            if (!allocate) {
                t.m_pLeader = leader ? reinterpret_cast<std::uintptr_t>(memory.data()) : 0;
                t.m_pPayload = reinterpret_cast<std::uintptr_t>(memory.data());
                t.m_pTrailer = trailer ? reinterpret_cast<std::uintptr_t>(memory.data()) : 0;
            }
            frame_handle_t* handle = nullptr;
            EXPECT_EQ(LIBCSI_INVALID_PARAMETER,
                      allocate ? libcsi_alloc_and_announce_frame(device, geometry.ipuX, geometry.ipuY, &t, &handle)
                               : libcsi_announce_frame(device, geometry.ipuX, geometry.ipuY, &t, &handle));
            EXPECT_EQ(nullptr, handle);
        }
    }
    ASSERT_EQ(LIBCSI_OK, Announce(3)) << "no index was taken";
    QueueAll();
    StreamAndVerify(100);
}

// The memory of an allocated user-pointer frame cannot be had: the driver's
// buffer taken for it just before is given back, or the next frame, which
// gets the same index, would be refused by the driver.
TEST_F(Stream, AnAllocationThatFailsGivesTheDriversBufferBack)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(LORUN_EMULATED)
    GTEST_SKIP() << "the sanitizers end the process on a failed allocation, and the emulator keeps no address limit";
#else
    LibCSIImpl::TheConfig().enableUserptr = true;
    Open();
    lib_frame_transfer t = Sizes();
    t.m_nPayloadSize = 3ull << 30; // within the driver's image size, beyond the address space left below
    frame_handle_t* handle = nullptr;
    rlimit saved{};
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &saved));
    std::uint64_t usedKb = 0;
    {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmSize:", 0) == 0)
                usedKb = std::stoull(line.substr(7));
    }
    ASSERT_GT(usedKb, 0u);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(usedKb * 1024 + (512ull << 20));
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &tight));
    const std::int32_t result = libcsi_alloc_and_announce_frame(device, geometry.ipuX, geometry.ipuY, &t, &handle);
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &saved));
    EXPECT_EQ(LIBCSI_ERROR, result);
    EXPECT_EQ(nullptr, handle);
    // The failed frame's sizes were not those of the camera, so this device will
    // not stream any more; that the driver takes index 0 again is the point.
    EXPECT_EQ(LIBCSI_OK, Announce(3, true)) << "buffer index 0 is free in the driver again";
    RevokeAll();
#endif
}

TEST_F(Stream, InternalUserPointerFrames)
{
    LibCSIImpl::TheConfig().enableUserptr = true;
    Open(CameraIn("Mono10p").c_str());
    ASSERT_EQ(LIBCSI_OK, Announce(3, true));
    EXPECT_EQ(0u, buffers[0].transfer.m_pLeader % 256) << "aligned for the driver";
    QueueAll();
    StreamAndVerify(300);
}

TEST_F(Stream, StartRefusals)
{
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(2));
    EXPECT_EQ(LIBCSI_NOT_ENOUGH_FRAMES, libcsi_start_stream(device, 42)) << "three are needed";
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_STATE, libcsi_stop_stream(device, 0)) << "not streaming";
    lib_frame_transfer odd = Sizes();
    odd.m_nPayloadSize -= 1;
    std::vector<std::uint8_t> memory(1 << 20);
    odd.m_pLeader = reinterpret_cast<std::uintptr_t>(memory.data());
    odd.m_pPayload = odd.m_pLeader + odd.m_nLeaderSize;
    odd.m_pTrailer = odd.m_pPayload + odd.m_nPayloadSize;
    frame_handle_t* handle = nullptr;
    ASSERT_EQ(LIBCSI_OK, libcsi_announce_frame(device, geometry.ipuX, geometry.ipuY, &odd, &handle))
        << "a frame of the wrong size is taken with a warning";
    EXPECT_EQ(LIBCSI_BUFFER_TOO_SMALL, libcsi_start_stream(device, 42));
    EXPECT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, handle));
    lib_frame_transfer leaderless = Sizes();
    leaderless.m_pLeader = 0;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_announce_frame(device, geometry.ipuX, geometry.ipuY, &leaderless, &handle));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_announce_frame(device, 192, geometry.ipuY, &odd, &handle))
        << "below the IPU minimum";
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_announce_frame(device, 320, geometry.ipuY, &odd, &handle))
        << "not a multiple of the increment";
    RevokeAll();
}

TEST_F(Stream, FrameBookkeeping)
{
    LibCSIImpl::TheConfig().enableUserptr = true;
    Open("[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\nmode_switch_delay_ms = 2\n"
         "[camera1]\nnode = video1\nport = 3\nbus = 3\nbus_timing = 0\nmode_switch_delay_ms = 2\n");
    std::mutex seen;
    std::vector<std::uint32_t> lengths;
    std::map<std::uintptr_t, std::uint32_t> indexOfMemory;
    Os::Install(std::make_shared<Sim::ObservedSystem>(system, [&](unsigned long request, const void* argument) {
        if (request == VIDIOC_QBUF) {
            const auto& buffer = *static_cast<const v4l2_buffer*>(argument);
            std::lock_guard<std::mutex> lock(seen);
            lengths.push_back(buffer.length);
            indexOfMemory[buffer.m.userptr] = buffer.index;
        }
    }));
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    EXPECT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, buffers[0].handle));
    EXPECT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, buffers[1].handle));
    std::free(buffers[0].memory);
    std::free(buffers[1].memory);
    buffers.erase(buffers.begin(), buffers.begin() + 2);
    ASSERT_EQ(LIBCSI_OK, Announce(2));

    device_handle_t* other = nullptr;
    ASSERT_EQ(LIBCSI_OK, libcsi_open_device(1, &other));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_queue_frame(other, buffers[0].handle, &Stream::OnFrame, this))
        << "a frame of another device";
    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(other));

    QueueAll();
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, libcsi_revoke_frame(device, buffers[1].handle)) << "waiting for the stream";
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, libcsi_revoke_frame(device, buffers[1].handle)) << "in the driver";
    VerifyStream(30);
    const std::uint64_t total = std::uint64_t{geometry.ipuX} * geometry.ipuY;
    std::lock_guard<std::mutex> lock(seen);
    ASSERT_FALSE(lengths.empty());
    for (std::uint32_t length : lengths)
        EXPECT_EQ(total + 256, length) << "a whole alignment above a total that is a multiple of it";
    EXPECT_EQ(0u, indexOfMemory.at(buffers[1].transfer.m_pLeader)) << "the lowest free index is used again";
    EXPECT_EQ(1u, indexOfMemory.at(buffers[2].transfer.m_pLeader));
    EXPECT_EQ(2u, indexOfMemory.at(buffers[0].transfer.m_pLeader));
}

// A revoked frame is its owner's again, memory and all: a callback that a
// stop left pending must not come after the revoke.
TEST_F(Stream, NoPendingCallbackOfARevokedFrameComesAfterTheRevoke)
{
    struct Held {
        std::mutex mutex;
        std::condition_variable changed;
        bool release = false;
        std::vector<frame_handle_t*> calls;
    } held;
    const auto onFrame = [](void* context, frame_handle_t* frame, lib_frame_transfer*, std::uint64_t, std::uint32_t) {
        auto& h = *static_cast<Held*>(context);
        std::unique_lock<std::mutex> lock(h.mutex);
        h.calls.push_back(frame);
        h.changed.notify_all();
        h.changed.wait(lock, [&] { return h.release; });
    };
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    for (Buffer& b : buffers)
        ASSERT_EQ(LIBCSI_OK, libcsi_queue_frame(device, b.handle, onFrame, &held));
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    frame_handle_t* running = nullptr;
    {
        std::unique_lock<std::mutex> lock(held.mutex);
        ASSERT_TRUE(held.changed.wait_for(lock, std::chrono::seconds(10), [&] { return !held.calls.empty(); }));
        running = held.calls.front();
    }
    // The callback thread is held in the first frame's callback: the stop
    // leaves the other two waiting for theirs.
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, libcsi_revoke_frame(device, buffers[2].handle == running ? buffers[1].handle
                                                                                             : buffers[2].handle))
        << "before the flush, a frame waiting for its callback still counts as queued";
    ASSERT_EQ(LIBCSI_OK, libcsi_flush_frames(device));
    for (Buffer& b : buffers)
        if (b.handle != running) {
            EXPECT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, b.handle));
        }
    {
        std::lock_guard<std::mutex> lock(held.mutex);
        held.release = true;
        held.changed.notify_all();
    }
    EXPECT_EQ(LIBCSI_OK, libcsi_revoke_frame(device, running));
    ASSERT_EQ(LIBCSI_OK, libcsi_close_device(device));
    device = nullptr;
    std::lock_guard<std::mutex> lock(held.mutex);
    EXPECT_EQ(1u, held.calls.size()) << "the revoked frames' pending callbacks came after all";
}

const char* kOneBuffer = "[system]\nmin_announced_frames = 1\n[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\n"
                         "frame_rate = 0\nmode_switch_delay_ms = 2\n";

TEST_F(Stream, FrameFaultsAreCountedWhereTheyBelong)
{
    auto& config = LibCSIImpl::TheConfig();
    config.dumpAcqStatistics = true;
    Open(kOneBuffer);
    ASSERT_EQ(LIBCSI_OK, Announce(1));
    requeue = false;
    // One buffer, queued by hand: each fault armed before the queueing hits exactly that frame.
    std::size_t frames = 0;
    auto frameWith = [&](std::optional<Sim::Fault> fault, std::uint64_t value = 0) {
        if (fault)
            system->InjectFault(0, *fault, 1, value);
        ASSERT_EQ(LIBCSI_OK, libcsi_queue_frame(device, buffers[0].handle, &Stream::OnFrame, this));
        ASSERT_TRUE(AwaitFrames(++frames));
    };
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    frameWith(std::nullopt);
    frameWith(Sim::Fault::BadLeaderKey);
    EXPECT_EQ(1u, Count(LIBCSI_FRAME_ERROR)) << "a wrong leader key";
    frameWith(Sim::Fault::BlockIDGap, 2);
    // Block 2 failed its check and does not count as received: 1, then 5, is three missing.
    EXPECT_EQ(3u, LibCSIImpl::DroppedFrameCount(device)) << "two block IDs skipped, one frame failed";
    frameWith(Sim::Fault::IncompleteFrame);
    EXPECT_EQ(1u, Count(LIBCSI_FRAME_INVALID));
    frameWith(Sim::Fault::ZeroFrame);
    EXPECT_EQ(2u, Count(LIBCSI_FRAME_ERROR)) << "an unfilled buffer fails its key check";
    frameWith(std::nullopt);
    EXPECT_EQ(3u, Count(LIBCSI_FRAME_VALID));
    EXPECT_EQ(5u, LibCSIImpl::DroppedFrameCount(device)) << "blocks 6 and 7 did not arrive as valid frames";
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    EXPECT_EQ(0, wrongPixels);
    // A second stream that ends at once: the error counts ended with the first.
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    const std::string lines = ReadFile(config.PathOf("libcsi_acq_stat.txt"));
    const std::size_t second = lines.find("#0002");
    ASSERT_NE(std::string::npos, second) << lines;
    EXPECT_NE(std::string::npos, lines.substr(0, second).find("LeaderMagicKeyErrors=0002; TrailerMagicKeyErrors=0000"))
        << "the wrong leader key and the unfilled buffer\n" << lines;
    EXPECT_NE(std::string::npos, lines.find("LeaderMagicKeyErrors=0000", second)) << lines;
    libcsi_flush_frames(device);
    RevokeAll();
}

// Each field of the statistics record comes from its own counter of the
// driver: frames sent, packets with a bad CRC, frames lost for want of a
// buffer, frames flagged incomplete, and the current rate.
TEST_F(Stream, StatisticsAreTheDriversFieldByField)
{
    Open(kOneBuffer);
    ASSERT_EQ(LIBCSI_OK, Announce(1));
    requeue = false;
    std::size_t frames = 0;
    auto frameWith = [&](std::optional<Sim::Fault> fault) {
        if (fault)
            system->InjectFault(0, *fault, 1);
        ASSERT_EQ(LIBCSI_OK, libcsi_queue_frame(device, buffers[0].handle, &Stream::OnFrame, this));
        ASSERT_TRUE(AwaitFrames(++frames));
    };
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    frameWith(std::nullopt);
    frameWith(Sim::Fault::IncompleteFrame);
    frameWith(Sim::Fault::PacketCRCError);
    frameWith(Sim::Fault::PacketCRCError);
    frameWith(std::nullopt);
    libcsi_stream_statistics_t statistics{};
    ASSERT_EQ(LIBCSI_OK, libcsi_get_stream_statistics(device, &statistics));
    EXPECT_EQ(5u, statistics.m_nFramesCount);
    EXPECT_EQ(2u, statistics.m_nPacketCRCError);
    EXPECT_EQ(3u, statistics.m_nFramesIncomplete) << "a frame with a bad packet is not whole either";
    EXPECT_EQ(0u, statistics.m_nFramesUnderrun) << "this camera waits for a buffer";
    EXPECT_EQ(3u, Count(LIBCSI_FRAME_INVALID));
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));

    ASSERT_EQ(LIBCSI_OK, libcsi_reset_stream_statistics(device));
    ASSERT_EQ(LIBCSI_OK, libcsi_get_stream_statistics(device, &statistics));
    EXPECT_EQ(0u, statistics.m_nFramesCount + statistics.m_nPacketCRCError + statistics.m_nFramesIncomplete);
    EXPECT_EQ(0.0, statistics.m_dFrameRate) << "no frames, no interval";

    // The rate is the driver's current frame count over its current interval.
    struct DriverAtTwoHundred : Sim::ObservedSystem {
        using ObservedSystem::ObservedSystem;
        int Ioctl(int fd, unsigned long request, void* argument) override
        {
            const int result = ObservedSystem::Ioctl(fd, request, argument);
            if (request == VIDIOC_STREAMSTAT && result >= 0) {
                auto& answer = *static_cast<qel_stream_statistics*>(argument);
                answer.current_frames_count = 50;
                answer.current_frames_interval = 250000; // microseconds
            }
            return result;
        }
    };
    Os::Install(std::make_shared<DriverAtTwoHundred>(system, nullptr));
    ASSERT_EQ(LIBCSI_OK, libcsi_get_stream_statistics(device, &statistics));
    EXPECT_DOUBLE_EQ(200.0, statistics.m_dFrameRate);
    libcsi_flush_frames(device);
    RevokeAll();
}

TEST_F(Stream, FramesTheCameraLostForWantOfABufferAreUnderruns)
{
    Open("[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 500\nmode_switch_delay_ms = 2\n");
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    requeue = false;
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitFrames(3));
    // Every buffer is with the consumer now: the sensor runs on, and loses its frames.
    ASSERT_TRUE(Eventually([&] { return system->GetFramesLost(0) >= 5; }));
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    libcsi_stream_statistics_t statistics{};
    ASSERT_EQ(LIBCSI_OK, libcsi_get_stream_statistics(device, &statistics));
    EXPECT_EQ(system->GetFramesLost(0), statistics.m_nFramesUnderrun);
    EXPECT_EQ(3u, statistics.m_nFramesCount);
    libcsi_flush_frames(device);
    RevokeAll();
}

TEST_F(Stream, DisabledKeyCheckCountsButKeepsTheFrame)
{
    auto& config = LibCSIImpl::TheConfig();
    config.disableMagicKeysCheck = true;
    config.dumpAcqStatistics = true;
    Open(kOneBuffer);
    ASSERT_EQ(LIBCSI_OK, Announce(1));
    system->InjectFault(0, Sim::Fault::BadTrailerKey, 1);
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitFrames(3));
    EXPECT_EQ(0u, Count(LIBCSI_FRAME_ERROR));
    requeue = false;
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    const std::string line = ReadFile(config.PathOf("libcsi_acq_stat.txt"));
    EXPECT_NE(std::string::npos, line.find("LeaderMagicKeyErrors=0000; TrailerMagicKeyErrors=0001")) << line;
    libcsi_flush_frames(device);
    RevokeAll();
}

TEST_F(Stream, UnfilledFramesComeBackUnusedAtStop)
{
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    // The camera never starts: the stop drains three unused frames.
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    ASSERT_TRUE(AwaitFrames(3));
    EXPECT_EQ(3u, Count(LIBCSI_FRAME_UNUSED));
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, libcsi_revoke_frame(device, buffers[0].handle))
        << "queued again by the callback, for the next stream";
    EXPECT_EQ(LIBCSI_OK, libcsi_flush_frames(device));
    RevokeAll();
}

TEST_F(Stream, DriverFailuresEndTheStreamCleanly)
{
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    system->InjectFault(0, Sim::Fault::DQBUFError, 1, EINVAL);
    StartCamera();
    // The first dequeue met the error, and the camera filled every queued buffer:
    // a dequeue thread still running would have delivered them.
    ASSERT_TRUE(Eventually([&] { return !system->IsFaultArmed(0, Sim::Fault::DQBUFError); }));
    ASSERT_TRUE(Eventually([&] { return system->GetFramesSent(0) >= 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // an observation window: the cause is proven
    EXPECT_EQ(0u, Count(LIBCSI_FRAME_VALID)) << "the dequeue thread ended on the error";
    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device)) << "closing while streaming stops the stream";
    device = nullptr;
}

TEST_F(Stream, FramesWithoutLeaderAndTrailerLeaveTheLogQuiet)
{
    static ReportCollector reports;
    Open((std::string(kCamera) + "leader_trailer = 0\n").c_str());
    const auto registration = reports.Register();
    const std::int32_t savedLevel = LibCSIImpl::ExchangeLogLevel(3); // warnings and errors
    bare = true;
    ASSERT_EQ(LIBCSI_OK, Announce(4));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitValidFrames(3000, 60 * TimeScale())) << "frames came: " << Count(LIBCSI_FRAME_VALID);
    requeue = false;
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    // Report lines arrive in the order they were logged: once this error is
    // in, every line the stream logged before it is too.
    std::int32_t type;
    std::uint64_t size = 0;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_info(0, 40, &type, nullptr, &size));
    LibCSIImpl::ExchangeLogLevel(savedLevel);
    std::unique_lock<std::mutex> lock(reports.mutex);
    ASSERT_TRUE(reports.AwaitLine(lock, "Invalid InfoID."));
    const auto blockIDLines = std::count_if(reports.lines.begin(), reports.lines.end(), [](const std::string& line) {
        return line.find("BlockID") != std::string::npos || line.find("magic key") != std::string::npos;
    });
    EXPECT_EQ(0, blockIDLines) << "first of " << reports.lines.size() << ": " << reports.lines.front();
    EXPECT_EQ(0u, LibCSIImpl::DroppedFrameCount(device)) << "nothing to count without block IDs";
    lock.unlock();
    libcsi_flush_frames(device);
    RevokeAll();
}

TEST_F(Stream, AStreamOffThatNeverCompletesTimesOut)
{
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    system->InjectFault(0, Sim::Fault::StreamOffHangs, 1);
    EXPECT_EQ(LIBCSI_TIMEOUT, libcsi_stop_stream(device, 10));
    EXPECT_FALSE(system->IsStreaming(0));
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_STATE, libcsi_stop_stream(device, 10)) << "the device is open again, not streaming";
    libcsi_flush_frames(device);
    RevokeAll();
}

TEST_F(Stream, FrameDumpsAndTheStatisticsLine)
{
    auto& config = LibCSIImpl::TheConfig();
    config.numDumpFrames = 2;
    config.dumpStartFrameNumber = 5;
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitFrames(20));
    requeue = false;
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    const std::string whole = ReadFile(config.PathOf("005.dat"));
    ASSERT_EQ(geometry.ipuX * geometry.ipuY, whole.size()) << "leader, payload and trailer";
    EXPECT_EQ(whole.substr(0, 52), ReadFile(config.PathOf("005leader.dat")));
    EXPECT_EQ(geometry.payloadSize, ReadFile(config.PathOf("005payload.dat")).size());
    EXPECT_EQ(32u, ReadFile(config.PathOf("006trailer.dat")).size());
    EXPECT_EQ("", ReadFile(config.PathOf("007.dat"))) << "two dumps only";
    qel_frame_leader leader;
    std::memcpy(&leader, whole.data(), sizeof leader);
    EXPECT_EQ(5u, +leader.block_id) << "the fifth frame received";

    libcsi_stream_statistics_t statistics{};
    ASSERT_EQ(LIBCSI_OK, libcsi_get_stream_statistics(device, &statistics));
    EXPECT_GE(statistics.m_nFramesCount, 20u);
    ASSERT_EQ(LIBCSI_OK, libcsi_reset_stream_statistics(device));
    ASSERT_EQ(LIBCSI_OK, libcsi_get_stream_statistics(device, &statistics));
    EXPECT_EQ(0u, statistics.m_nFramesCount);
    libcsi_flush_frames(device);
    RevokeAll();
}

TEST_F(Stream, TimingTableAndAcquisitionStatistics)
{
    auto& config = LibCSIImpl::TheConfig();
    config.dumpFrameTiming = true;
    config.dumpAcqStatistics = true;
    Open();
    ASSERT_EQ(LIBCSI_OK, Announce(3));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitFrames(10));
    requeue = false;
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    libcsi_flush_frames(device);
    RevokeAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_close_device(device));
    device = nullptr;
    ASSERT_EQ(LIBCSI_OK, libcsi_deinit()); // closes the files
    const std::string timing = ReadFile(config.PathOf("libcsi_timing.csv"));
    EXPECT_EQ(0u, timing.find("FrameInterval[us];BlockID;BufferFlags;LeaderTimestamp;MemcpyDuration[us]\r\n"));
    const auto lines = std::count(timing.begin(), timing.end(), '\n');
    EXPECT_GE(lines, 10) << "a line for every frame but the first";
    EXPECT_NE(std::string::npos, timing.find(";2;40000004;")) << "block 2 with its valid and done flags";
    const std::string statistics = ReadFile(config.PathOf("libcsi_acq_stat.txt"));
    EXPECT_EQ(0u, statistics.find("#0001; Duration=")) << statistics;
    EXPECT_NE(std::string::npos, statistics.find("LeaderMagicKeyErrors=0000; TrailerMagicKeyErrors=0000; BlockIdErrors=0000; DrvFramesCount="));
    EXPECT_EQ(statistics.size() - 2, statistics.find("\r\n"));
    ASSERT_EQ(LIBCSI_OK, libcsi_init());
}

TEST_F(Stream, RegisterTrafficDoesNotStallFrames)
{
    Open("[camera0]\nwidth = 64\nheight = 16\nframe_rate = 200\nmode_switch_delay_ms = 2\n");
    // A register read is held on the bus, inside libcsi's GenCP call with
    // its locks taken, until 60 more frames have come past it.
    std::atomic<std::thread::id> trafficThread{};
    std::atomic<bool> held{false};
    std::atomic<bool> framesCamePastTheRead{false};
    Os::Install(std::make_shared<Sim::ObservedSystem>(system, [&](unsigned long request, const void*) {
        if ((request != VIDIOC_R_I2C && request != VIDIOC_W_I2C) || std::this_thread::get_id() != trafficThread ||
            held.exchange(true))
            return;
        const std::size_t before = Count(LIBCSI_FRAME_VALID);
        framesCamePastTheRead = AwaitValidFrames(before + 60, 30);
    }));
    ASSERT_EQ(LIBCSI_OK, Announce(4));
    QueueAll();
    ASSERT_EQ(LIBCSI_OK, libcsi_start_stream(device, 42));
    StartCamera();
    ASSERT_TRUE(AwaitFrames(1));
    std::int32_t readResult = LIBCSI_ERROR;
    std::thread traffic([&] {
        trafficThread = std::this_thread::get_id();
        auto command = SimTest::Harness::ReadCommand(0x44, 64, 1);
        std::vector<std::uint8_t> ack(1024);
        std::uint64_t size = ack.size();
        readResult = libcsi_write_gencp(device, command.data(), command.size(), 60000);
        if (readResult == LIBCSI_OK)
            readResult = libcsi_read_gencp(device, ack.data(), &size, 60000);
    });
    traffic.join();
    EXPECT_TRUE(held) << "the read reached the bus";
    EXPECT_TRUE(framesCamePastTheRead) << "frames stalled behind a register read";
    EXPECT_EQ(LIBCSI_OK, readResult);
    requeue = false;
    ASSERT_EQ(LIBCSI_OK, libcsi_stop_stream(device, 100));
    EXPECT_EQ(0, wrongPixels);
    libcsi_flush_frames(device);
    RevokeAll();
}

}
