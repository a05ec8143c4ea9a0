// Streaming: start and stop, the frame dequeue thread (FDTP) and the frame
// callback thread (FCTP), flushing, and the stream statistics.
#include "libcsi/Boundary.h"
#include "libcsi/Config.h"
#include "libcsi/Device.h"
#include "libcsi/Diagnostics.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"
#include "libcsi/NamedThread.h"
#include "libcsi/OsSeam.h"
#include "libcsi/SafeFile.h"

#include <linux/videodev2.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cinttypes>
#include <atomic>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace QEL { namespace LibCSIImpl {

namespace {

std::atomic<bool> priorityFailed{false};

// Waits until a progress attribute of the node reads "2"; true when it did.
// The driver is given its own timeout plus a margin: a driver that never
// confirms costs the caller that long, not forever.
bool WaitForAttribute(const Device& device, const char* name, std::uint32_t timeoutMs)
{
    const std::uint64_t deadline = MonotonicMicroseconds() + (std::uint64_t{timeoutMs} + 2000) * 1000;
    Os::Backend& os = Os::Current();
    const std::string path = device.sysNode + "/" + name;
    int fd = os.Open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    char value = 0;
    os.Read(fd, &value, 1);
    while (value != '2') {
        fd_set exceptSet;
        FD_ZERO(&exceptSet);
        FD_SET(fd, &exceptSet);
        const std::uint64_t now = MonotonicMicroseconds();
        if (now >= deadline) {
            LIBCSI_LOG(TierWarning, " %s: WARNING: Select timeout (errno=%d, %s).\n", "wait_for_attribute", 0,
                       "no change of the attribute");
            break;
        }
        timeval limit{static_cast<time_t>((deadline - now) / 1000000), static_cast<suseconds_t>((deadline - now) % 1000000)};
        const int result = os.Select(fd + 1, nullptr, nullptr, &exceptSet, &limit);
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0) {
            LIBCSI_LOG(TierError, " %s: ERROR: Select failed (errno=%d, %s).\n", "wait_for_attribute", errno,
                       std::strerror(errno));
            break;
        }
        if (result == 0)
            continue;
        os.Lseek(fd, 0, SEEK_SET);
        os.Read(fd, &value, 1);
    }
    os.Close(fd);
    return value == '2';
}

void SetThreadPriority(std::thread& thread)
{
    if (priorityFailed)
        return;
    sched_param parameter{};
    parameter.sched_priority = 99;
    if (int error = pthread_setschedparam(thread.native_handle(), SCHED_FIFO, &parameter)) {
        priorityFailed = true;
        LIBCSI_LOG(TierWarning, " %s WARNING: Failed to set thread priority (errno=%d, %s).\n", "set_thread_priority",
                   error, std::strerror(error));
        return;
    }
    int policy = 0;
    if (pthread_getschedparam(thread.native_handle(), &policy, &parameter) == 0)
        LIBCSI_LOG(TierVerbose, " %s: thread policy=%s, priority=%d\n", "set_thread_priority",
                   policy == SCHED_FIFO ? "SCHED_FIFO" : policy == SCHED_RR ? "SCHED_RR" : "SCHED_OTHER",
                   parameter.sched_priority);
}

std::uint64_t Milliseconds() { return MonotonicMicroseconds() / 1000; }

void WriteDump(const std::string& path, std::initializer_list<std::pair<const void*, std::uint64_t>> parts)
{
    std::FILE* file = OpenFileForWriting(path, false);
    if (!file)
        return;
    for (const auto& [data, size] : parts)
        if (data && size)
            std::fwrite(data, 1, size, file);
    std::fclose(file);
}

// Raw frames for diagnosis: leader, payload, trailer and all three, numbered
// from dump_start_frame_number on.
void DumpFrame(Device& device, const lib_frame_transfer& t)
{
    const Config& config = TheConfig();
    if (!LogWanted(0) || config.numDumpFrames == 0 || device.m_nNumReceivedFrames < config.dumpStartFrameNumber ||
        device.dumpedFrames >= config.numDumpFrames)
        return;
    LIBCSI_LOG(TierTrace, "  Dump frame %lu\n", static_cast<unsigned long>(device.m_nNumReceivedFrames));
    const unsigned long n = config.dumpStartFrameNumber + device.dumpedFrames;
    const void* leader = reinterpret_cast<const void*>(t.m_pLeader);
    const void* payload = reinterpret_cast<const void*>(t.m_pPayload);
    const void* trailer = reinterpret_cast<const void*>(t.m_pTrailer);
    char name[64];
    std::snprintf(name, sizeof name, "%03luleader.dat", n);
    WriteDump(config.PathOf(name), {{leader, t.m_nLeaderSize}});
    std::snprintf(name, sizeof name, "%03lupayload.dat", n);
    WriteDump(config.PathOf(name), {{payload, t.m_nPayloadSize}});
    std::snprintf(name, sizeof name, "%03lutrailer.dat", n);
    WriteDump(config.PathOf(name), {{trailer, t.m_nTrailerSize}});
    std::snprintf(name, sizeof name, "%03lu.dat", n);
    WriteDump(config.PathOf(name), {{leader, t.m_nLeaderSize}, {payload, t.m_nPayloadSize}, {trailer, t.m_nTrailerSize}});
    ++device.dumpedFrames;
}

// Stops the dequeue thread: it drains the driver and ends.
int32_t StopDequeueThread(Device& device)
{
    {
        std::unique_lock<std::mutex> lock(device.dequeueMutex);
        while (device.dequeueThreadState != ThreadState::Stopped) {
            if (device.dequeueThreadState == ThreadState::StopRequested) {
                device.dequeueCondition.wait(lock);
                continue;
            }
            device.dequeueThreadState = ThreadState::StopRequested;
            device.dequeueCondition.notify_all();
            const std::uint32_t one = 1;
            if (::write(device.m_nStopDequeueEvent[1], &one, sizeof one) != sizeof one) {
                LIBCSI_LOG(TierError, " %s ERROR: Write m_nStopDequeueEvent failed (errno=%d, %s).\n",
                           "libcsi_stop_stream", errno, std::strerror(errno));
                return LIBCSI_ERROR;
            }
        }
    }
    if (device.dequeueThread.joinable())
        device.dequeueThread.join();
    return LIBCSI_OK;
}


void WriteStatisticsLine(Device& device)
{
    auto library = CurrentLibrary();
    if (!library || !library->statisticsFile || !TheConfig().dumpAcqStatistics)
        return;
    const std::uint64_t duration = Milliseconds() - device.streamStartTime;
    std::FILE* file = library->statisticsFile;
    std::fprintf(file, "#%04u; ", device.streamRunCounter);
    std::fprintf(file, "Duration=%02" PRIu64 "h:%02" PRIu64 "m:%02" PRIu64 "s:%03" PRIu64 "ms; ",
                 static_cast<std::uint64_t>(duration / 3600000), static_cast<std::uint64_t>(duration / 60000 % 60),
                 static_cast<std::uint64_t>(duration / 1000 % 60), static_cast<std::uint64_t>(duration % 1000));
    std::fprintf(file, "FramesReceived=%06" PRIu64 "; ", static_cast<std::uint64_t>(device.m_nNumReceivedFrames));
    std::fprintf(file, "MeanFrameRate=%6.2f; ",
                 duration ? static_cast<double>(device.m_nNumReceivedFrames) * 1000.0 / static_cast<double>(duration) : 0.0);
    std::fprintf(file, "LeaderMagicKeyErrors=%04u; TrailerMagicKeyErrors=%04u; BlockIdErrors=%04u",
                 device.leaderKeyErrors, device.trailerKeyErrors, device.blockIDErrors);
    qel_stream_statistics stat{};
    if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_STREAMSTAT, &stat) >= 0) {
        std::fprintf(file, "; DrvFramesCount=%04llu", static_cast<unsigned long long>(stat.frames_count));
        std::fprintf(file, "; DrvPacketCrcError=%04llu", static_cast<unsigned long long>(stat.packet_crc_errors));
        std::fprintf(file, "; DrvFramesUnterrun=%04llu", static_cast<unsigned long long>(stat.frames_underrun));
        std::fprintf(file, "; DrvFramesIncomplete=%04llu", static_cast<unsigned long long>(stat.frames_incomplete));
        std::fprintf(file, "; DrvFrameRate=%6.2f",
                     stat.current_frames_interval
                         ? static_cast<double>(stat.current_frames_count) * 1e6 / static_cast<double>(stat.current_frames_interval)
                         : 0.0);
    }
    std::fprintf(file, "\r\n");
    std::fflush(file);
}

}

std::uint64_t DroppedFrameCount(device_handle_t* device)
{
    std::lock_guard<std::mutex> statistics(device->statisticsMutex);
    return device->m_nNumDroppedFrames;
}

void SetState(Device& device, DeviceState state)
{
    device.state = state;
    device.stateCondition.notify_all();
}

int32_t StopStream(Device& device, std::uint32_t timeout)
{
    int32_t result = LIBCSI_OK;
    if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_STREAMOFF_EX, &timeout) < 0) {
        LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_STREAMOFF_EX failed (errno=%d, %s).\n", "libcsi_stop_stream", errno,
                   std::strerror(errno));
        result = LIBCSI_DRIVER_CALL_FAILED;
    } else if (!WaitForAttribute(device, "streamoff", timeout)) {
        LIBCSI_LOG(TierError, " %s ERROR: Wait for stream off timeout\n", "libcsi_stop_stream");
        result = LIBCSI_TIMEOUT;
    }
    // The dequeue thread must end before the descriptor and the pipe can go, whatever happened above.
    if (int32_t stopped = StopDequeueThread(device))
        result = result ? result : stopped;
    return result;
}

int32_t FlushFrames(Device& device)
{
    if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_FLUSH_FRAMES, nullptr) < 0) {
        LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_STREAMOFF_EX failed (errno=%d, %s).\n", "flush_frames", errno,
                   std::strerror(errno));
        return LIBCSI_DRIVER_CALL_FAILED;
    }
    if (!WaitForAttribute(device, "flush", 1000))
        LIBCSI_LOG(TierError, " ERROR while waiting for flush frames confirmation.\n");
    std::lock_guard<std::mutex> dequeue(device.dequeueMutex);
    for (const auto& frame : device.announcedFrames)
        frame->queued = false;
    device.m_InputFrameQueue.clear();
    return LIBCSI_OK;
}

void StopCallbackThread(Device& device)
{
    {
        std::unique_lock<std::mutex> lock(device.outputMutex);
        if (device.callbackThreadState == ThreadState::Running) {
            device.callbackThreadState = ThreadState::StopRequested;
            device.outputCondition.notify_all();
        }
        device.outputCondition.wait(lock, [&] { return device.callbackThreadState == ThreadState::Stopped; });
    }
    if (device.callbackThread.joinable())
        device.callbackThread.join();
}

void FrameCallbackThread(Device& device)
{
    std::unique_lock<std::mutex> lock(device.outputMutex);
    // Frames still in the output queue are delivered before a stop takes effect.
    for (;;) {
        if (device.m_OutputFrameQueue.empty()) {
            if (device.callbackThreadState != ThreadState::Running)
                break;
            device.outputCondition.wait(lock);
            continue;
        }
        std::shared_ptr<Frame> frame = device.m_OutputFrameQueue.front();
        device.m_OutputFrameQueue.pop_front();
        const libcsi_frame_callback_t callback = frame->callback;
        void* context = frame->context;
        const std::uint64_t userValue = frame->userValue;
        const std::uint32_t status = frame->status;
        frame->queued = false;
        frame->status = LIBCSI_FRAME_ERROR;
        frame->callback = nullptr;
        frame->context = nullptr;
        frame->userValue = 0;
        lock.unlock();
        if (callback) {
            const std::uint64_t start = MonotonicMicroseconds();
            try {
                callback(context, frame.get(), frame->transfer, userValue, status);
            } catch (...) {
                LIBCSI_LOG(TierError, "EXCEPTION in frame callback occurred.\n");
            }
            LIBCSI_LOG(TierVerbose, " FCTP: Callback took %luus\n",
                       static_cast<unsigned long>(MonotonicMicroseconds() - start));
        }
        lock.lock();
    }
    device.callbackThreadState = ThreadState::Stopped;
    device.outputCondition.notify_all();
    LIBCSI_LOG(TierTrace, "%s(pDeviceHandle=%p) THREAD ENDED.\n", "frame_callback_thread_proc",
               static_cast<void*>(&device));
}

namespace {

// What the dequeue thread carries from one frame to the next.
struct DequeueProgress {
    bool stopping = false; // the stop event came: drain the driver, then end
    bool firstFrame = true;
    std::uint64_t currentBlockID = 0, lastBlockID = 0;
    std::uint64_t zeroFrames = 0;       // frames whose leader or trailer key was zero
    std::uint64_t previousTime = 0;     // of the last timing line, microseconds
    std::uint64_t copyDuration = 0;     // of the last copy out of the driver, microseconds
};

enum class Wake { Ready, Again, Failed };

// Sleeps until the driver has a frame or the stop event comes; the dequeue
// mutex is let go meanwhile.
Wake AwaitDriver(Device& device, std::unique_lock<std::mutex>& lock, DequeueProgress& progress)
{
    const int stopPipe = device.m_nStopDequeueEvent[0], fd = device.m_nFileHandle;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(stopPipe, &readSet);
    FD_SET(fd, &readSet);
    lock.unlock();
    const int result = Os::Current().Select(std::max(stopPipe, fd) + 1, &readSet, nullptr, nullptr, nullptr);
    const int error = errno;
    lock.lock();
    if (result < 0) {
        if (error == EINTR)
            return Wake::Again;
        LIBCSI_LOG(TierError, " FDTP: ERROR: Select failed (errno=%d, %s).\n", error, std::strerror(error));
        return Wake::Failed;
    }
    if (result == 0) {
        LIBCSI_LOG(TierError, " FDTP: ERROR: Select timeout (errno=%d, %s).\n", error, std::strerror(error));
        return Wake::Failed;
    }
    if (FD_ISSET(stopPipe, &readSet)) {
        LIBCSI_LOG(TierTrace, "  FDTP: STOP dequeue event detected\n");
        LIBCSI_LOG(TierTrace, " FDTP: Start dequeueing frames from driver...\n");
        progress.stopping = true;
    }
    if (!FD_ISSET(fd, &readSet) && !progress.stopping) {
        lock.unlock();
        sched_yield();
        lock.lock();
        return Wake::Again;
    }
    return Wake::Ready;
}

enum class Dequeued { Buffer, Again, End };

// Takes the next filled buffer from the driver. While stopping, an empty
// driver ends the thread.
Dequeued DequeueBuffer(Device& device, const DequeueProgress& progress, v4l2_buffer& buffer)
{
    buffer = v4l2_buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = device.memoryMode == MemoryMode::MMAP ? V4L2_MEMORY_MMAP : V4L2_MEMORY_USERPTR;
    if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_DQBUF, &buffer) >= 0)
        return Dequeued::Buffer;
    const int error = errno;
    if (progress.stopping) {
        LIBCSI_LOG(TierTrace, " FDTP: Stop triggered. No more frames to dequeue. (errno=%d, %s).\n", error,
                   std::strerror(error));
        return Dequeued::End;
    }
    if (error == EAGAIN) {
        LIBCSI_LOG(TierVerbose, " FDTP: No frame to dequeue. (errno=%d, %s).\n", error, std::strerror(error));
        return Dequeued::Again;
    }
    if (error == EINVAL)
        LIBCSI_LOG(TierError, " FDTP: Invalid/Incomplete frame detected (errno=%d, %s).\n", error,
                   std::strerror(error));
    else
        LIBCSI_LOG(TierError, " FDTP: ERROR while dequeing buffer from driver (errno=%d, %s).\n", error,
                   std::strerror(error));
    return Dequeued::End;
}

// The frame status the driver's flags say; a buffer that is not the frame
// expected next is an error.
std::uint32_t Classify(const v4l2_buffer& buffer, const Frame& frame)
{
    std::uint32_t status;
    if (buffer.flags & (QEL_BUF_FLAG_INVALID_31 | QEL_BUF_FLAG_INVALID_28)) {
        LIBCSI_LOG(TierError, " FDTP: Invalid/Incomplete frame detected\n");
        status = LIBCSI_FRAME_INVALID;
    } else if (buffer.flags & QEL_BUF_FLAG_VALID) {
        status = LIBCSI_FRAME_VALID;
    } else if (buffer.flags & QEL_BUF_FLAG_UNUSED) {
        LIBCSI_LOG(TierTrace, " FDTP: buffer.flag: Unused frame detected\n");
        status = LIBCSI_FRAME_UNUSED;
    } else {
        LIBCSI_LOG(TierWarning, " FDTP: buffer.flag: Unknown buffer state\n");
        status = LIBCSI_FRAME_ERROR;
    }
    if (buffer.index != frame.m_nBufferIndex) {
        LIBCSI_LOG(TierError, " FDTP: ERROR: Dequeue wrong buffer index\n");
        status = LIBCSI_FRAME_ERROR;
    }
    return status;
}

// A frame announced over the driver's mapped buffers is copied out of them
// into the caller's memory.
void CopyOutOfDriver(Frame& frame, DequeueProgress& progress)
{
    if (frame.origin != FrameOrigin::Announced || frame.memoryMode != MemoryMode::MMAP)
        return;
    const lib_frame_transfer& t = *frame.transfer;
    const std::uint64_t start = MonotonicMicroseconds();
    if (frame.driverLeaderSize)
        std::memcpy(reinterpret_cast<void*>(t.m_pLeader), frame.driverLeader, t.m_nLeaderSize);
    if (frame.driverPayloadSize)
        std::memcpy(reinterpret_cast<void*>(t.m_pPayload), frame.driverPayload, t.m_nPayloadSize);
    if (frame.driverTrailerSize)
        std::memcpy(reinterpret_cast<void*>(t.m_pTrailer), frame.driverTrailer, t.m_nTrailerSize);
    progress.copyDuration = MonotonicMicroseconds() - start;
    LIBCSI_LOG(TierVerbose, " FDTP: memcpy took %luus (%lu MiB/s)\n", static_cast<unsigned long>(progress.copyDuration),
               static_cast<unsigned long>(progress.copyDuration ? frame.totalSize / progress.copyDuration : 0));
}

// One check of a valid frame's leader or trailer (not while stopping): counted
// when it fails, and the frame made an error unless the configuration turns
// that check off.
template <class Log>
void Judge(bool failed, std::uint32_t& errors, bool enforced, const DequeueProgress& progress, std::uint32_t& status,
           Log log)
{
    if (!failed || progress.stopping || status != LIBCSI_FRAME_VALID)
        return;
    ++errors;
    log(enforced ? TierError : TierWarning);
    if (enforced)
        status = LIBCSI_FRAME_ERROR;
}

void CheckKey(const char* record, std::uint32_t key, std::uint32_t expected, std::uint32_t& errors,
              const DequeueProgress& progress, std::uint32_t& status)
{
    Judge(key != expected, errors, !TheConfig().disableMagicKeysCheck, progress, status, [&](Tier tier) {
        LIBCSI_LOG(tier, "  FDTP: Invalid magic key within %s (0x%08X)\n", record, key);
    });
}

// The leader and trailer of one frame carry the same block ID.
void CheckBlockIDs(Device& device, std::uint64_t leaderID, std::uint64_t trailerID, DequeueProgress& progress,
                   std::uint32_t& status)
{
    if (leaderID == trailerID)
        progress.currentBlockID = leaderID;
    Judge(leaderID != trailerID, device.blockIDErrors, !TheConfig().disableBlockIdCheck, progress, status,
          [&](Tier tier) {
              LIBCSI_LOG(tier, "  FDTP: Inconsistent block IDs (0x%016" PRIX64 ",0x%016" PRIX64 ")\n", leaderID,
                         trailerID);
          });
}

// Block IDs skipped since the last valid frame are frames lost on the way.
// Only a leader and a trailer carry block IDs: without them there is no order to check.
void CountDroppedFrames(Device& device, bool hasBlockIDs, std::uint32_t status, DequeueProgress& progress)
{
    if (progress.firstFrame) {
        progress.lastBlockID = progress.currentBlockID;
        return;
    }
    if (progress.stopping || status != LIBCSI_FRAME_VALID || !hasBlockIDs)
        return;
    if (progress.lastBlockID < progress.currentBlockID) {
        std::lock_guard<std::mutex> statistics(device.statisticsMutex);
        device.m_nNumDroppedFrames += progress.currentBlockID - progress.lastBlockID - 1;
        progress.lastBlockID = progress.currentBlockID;
    } else {
        LIBCSI_LOG(TierWarning, " FDTP: currentBlockID=%" PRIu64 " lastBlockID=%" PRIu64 ": Invalid BlockID order\n",
                   progress.currentBlockID, progress.lastBlockID);
    }
}

// A line per frame with a leader: microseconds since the last, block ID, flags, device time, copy time.
void WriteTimingLine(const v4l2_buffer& buffer, const qel_frame_leader& leader, DequeueProgress& progress)
{
    auto library = CurrentLibrary();
    if (!library || !library->timingFile || !TheConfig().dumpFrameTiming)
        return;
    const std::uint64_t now = MonotonicMicroseconds();
    if (progress.previousTime != 0) {
        std::fprintf(library->timingFile, "%" PRIu64 ";%" PRIu64 ";%x;%" PRIu64 ";%" PRIu64 "\r\n",
                     static_cast<std::uint64_t>(now - progress.previousTime),
                     static_cast<std::uint64_t>(leader.block_id), buffer.flags,
                     static_cast<std::uint64_t>(leader.timestamp), progress.copyDuration);
        std::fflush(library->timingFile);
    }
    progress.previousTime = now;
}

// The next frame of the input queue, filled by the driver's `buffer`: copied
// out, checked, accounted for and handed to the callback thread.
// Under the dequeue and output mutexes.
void ProcessFrame(Device& device, const v4l2_buffer& buffer, DequeueProgress& progress)
{
    std::shared_ptr<Frame> frame = device.m_InputFrameQueue.front();
    device.m_InputFrameQueue.pop_front();
    ++device.m_nNumReceivedFrames;
    std::uint32_t status = Classify(buffer, *frame);
    CopyOutOfDriver(*frame, progress);

    const lib_frame_transfer& t = *frame->transfer;
    const bool hasLeader = t.m_nLeaderSize >= sizeof(qel_frame_leader);
    const bool hasTrailer = t.m_nTrailerSize >= sizeof(qel_frame_trailer);
    qel_frame_leader leader{};
    qel_frame_trailer trailer{};
    if (hasLeader) {
        std::memcpy(&leader, reinterpret_cast<const void*>(t.m_pLeader), sizeof leader);
        CheckKey("leader", leader.magic_key, QEL_LEADER_MAGIC, device.leaderKeyErrors, progress, status);
    }
    if (hasTrailer) {
        std::memcpy(&trailer, reinterpret_cast<const void*>(t.m_pTrailer), sizeof trailer);
        CheckKey("trailer", trailer.magic_key, QEL_TRAILER_MAGIC, device.trailerKeyErrors, progress, status);
    }
    if ((hasLeader && leader.magic_key == 0) || (hasTrailer && trailer.magic_key == 0))
        ++progress.zeroFrames;
    if (hasLeader && hasTrailer)
        CheckBlockIDs(device, leader.block_id, trailer.block_id, progress, status);
    CountDroppedFrames(device, hasLeader && hasTrailer, status, progress);

    DumpFrame(device, t);
    if (hasLeader)
        WriteTimingLine(buffer, leader, progress);

    frame->status = status;
    device.m_OutputFrameQueue.push_back(frame);
    device.outputCondition.notify_all();
    progress.firstFrame = false;
}

}

// Waits for the driver, dequeues, processes the frame, and yields; after the
// stop event it drains what the driver still holds and ends.
void FrameDequeueThread(Device& device)
{
    LIBCSI_LOG(TierTrace, " FDTP: %ld processors, 1 dequeue thread\n", ::sysconf(_SC_NPROCESSORS_ONLN));
    std::unique_lock<std::mutex> lock(device.dequeueMutex);
    DequeueProgress progress;
    while (device.dequeueThreadState == ThreadState::Running ||
           device.dequeueThreadState == ThreadState::StopRequested) {
        if (!progress.stopping) {
            const Wake wake = AwaitDriver(device, lock, progress);
            if (wake == Wake::Failed)
                break;
            if (wake == Wake::Again)
                continue;
        }
        std::unique_lock<std::mutex> output(device.outputMutex);
        v4l2_buffer buffer{};
        const Dequeued dequeued = DequeueBuffer(device, progress, buffer);
        if (dequeued == Dequeued::End)
            break;
        if (dequeued == Dequeued::Again)
            continue;
        if (!device.m_InputFrameQueue.empty())
            ProcessFrame(device, buffer, progress);
        output.unlock();
        lock.unlock();
        sched_yield();
        lock.lock();
    }
    LIBCSI_LOG(TierTrace, " FDTP: nNumZeroFrames=%" PRIu64 "\n", progress.zeroFrames);
    if (device.dequeueThreadState == ThreadState::StopRequested) {
        char sink[10];
        (void)!::read(device.m_nStopDequeueEvent[0], sink, sizeof sink);
    }
    device.dequeueThreadState = ThreadState::Stopped;
    device.dequeueCondition.notify_all();
    LIBCSI_LOG(TierTrace, "%s(pDeviceHandle=%p) THREAD ENDED.\n", "frame_dequeue_thread_proc",
               static_cast<void*>(&device));
}

} }

using namespace QEL;
using namespace QEL::LibCSIImpl;

extern "C" {

int32_t libcsi_start_stream(device_handle_t* pDeviceHandle, uint8_t nDataIdentifier)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        LIBCSI_LOG(TierTrace, " nDataIdentifier=%u\n", nDataIdentifier);
        if (device.m_nFileHandle == -1)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::mutex> lock(device.mutex);
        std::lock_guard<std::mutex> frames(device.frameMutex);
        if (device.state != DeviceState::Open) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", "libcsi_start_stream");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        if (device.announcedFrames.size() < device.m_nMinAnnouncedFrames) {
            LIBCSI_LOG(TierError, " %s ERROR: Number of announced frames insufficient. Required: %d. Announced: %lu\n",
                       "libcsi_start_stream", static_cast<int>(device.m_nMinAnnouncedFrames),
                       static_cast<unsigned long>(device.announcedFrames.size()));
            return LIBCSI_NOT_ENOUGH_FRAMES;
        }
        if (!device.buffersFit) {
            LIBCSI_LOG(TierError, " %s ERROR: Annouced buffers are too small.\n", "libcsi_start_stream");
            return LIBCSI_BUFFER_TOO_SMALL;
        }
        Os::Backend& os = Os::Current();
        if (device.memoryMode != MemoryMode::MMAP) {
            // The driver takes indices below the count: after a revoke the
            // highest index in use can lie above the number of frames.
            std::uint32_t count = 0;
            for (const auto& frame : device.announcedFrames)
                count = std::max(count, frame->m_nBufferIndex + 1);
            v4l2_requestbuffers request{};
            request.count = count;
            request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            request.memory = V4L2_MEMORY_USERPTR;
            if (os.Ioctl(device.m_nFileHandle, VIDIOC_REQBUFS, &request) < 0) {
                LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_REQBUFS failed (errno=%d, %s).\n", "libcsi_start_stream",
                           errno, std::strerror(errno));
                return LIBCSI_DRIVER_CALL_FAILED;
            }
            device.userBuffersDeclared = count;
        }
        {
            std::lock_guard<std::mutex> dequeue(device.dequeueMutex);
            for (const auto& frame : device.m_InputFrameQueue) {
                if (frame->queued)
                    continue;
                if (!QueueBuffer(device, *frame)) {
                    LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_QBUF failed for BufferIndex=%d (errno=%d, %s).\n",
                               "libcsi_start_stream", static_cast<int>(frame->m_nBufferIndex), errno,
                               std::strerror(errno));
                    return LIBCSI_DRIVER_CALL_FAILED;
                }
                frame->queued = true;
            }
        }
        device.m_nNumReceivedFrames = 0;
        device.dumpedFrames = 0;
        {
            std::lock_guard<std::mutex> statistics(device.statisticsMutex);
            device.m_nNumDroppedFrames = 0;
        }
        ++device.streamRunCounter;
        device.streamStartTime = Milliseconds();
        if (os.Ioctl(device.m_nFileHandle, VIDIOC_STREAMON_EX, nullptr) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_STREAMON_EX failed (errno=%d, %s).\n", "libcsi_start_stream",
                       errno, std::strerror(errno));
            return LIBCSI_DRIVER_CALL_FAILED;
        }
        {
            std::lock_guard<std::mutex> dequeue(device.dequeueMutex);
            device.dequeueThreadState = ThreadState::Running;
        }
        device.dequeueThread = StartNamedThread("csi-dequeue", [&device] { FrameDequeueThread(device); });
        const Config& config = TheConfig();
        if (config.enableFdtpPrioIncrease && config.numFrameCopyThreads == 1)
            SetThreadPriority(device.dequeueThread);
        SetState(device, DeviceState::Streaming);
        return LIBCSI_OK;
    });
}

int32_t libcsi_stop_stream(device_handle_t* pDeviceHandle, uint32_t nTimeout)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        LIBCSI_LOG(TierTrace, " nTimeout=%u\n", nTimeout);
        {
            std::unique_lock<std::mutex> lock(device.mutex);
            device.stateCondition.wait(lock, [&] { return !Passing(device.state); });
            if (device.state != DeviceState::Streaming) {
                LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", "libcsi_stop_stream");
                return LIBCSI_INVALID_DEVICE_STATE;
            }
            std::lock_guard<std::mutex> frames(device.frameMutex);
            SetState(device, DeviceState::Stopping);
        }
        const int32_t result = StopStream(device, nTimeout);
        {
            std::lock_guard<std::mutex> lock(device.mutex);
            std::lock_guard<std::mutex> frames(device.frameMutex);
            SetState(device, DeviceState::Open);
        }
        WriteStatisticsLine(device);
        device.leaderKeyErrors = device.trailerKeyErrors = device.blockIDErrors = 0;
        device.streamStartTime = 0;
        return result;
    });
}

int32_t libcsi_get_stream_statistics(device_handle_t* pDeviceHandle, libcsi_stream_statistics_t* pStatistics)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        if (!pStatistics)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::mutex> frames(device.frameMutex);
        if (device.state == DeviceState::Closed || device.state == DeviceState::Closing) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", "libcsi_get_stream_statistics");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        qel_stream_statistics stat{};
        if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_STREAMSTAT, &stat) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_STREAMSTAT failed (errno=%d, %s).\n",
                       "libcsi_get_stream_statistics", errno, std::strerror(errno));
            return LIBCSI_DRIVER_CALL_FAILED;
        }
        *pStatistics = libcsi_stream_statistics_t{
            stat.frames_count, stat.packet_crc_errors, stat.frames_underrun, stat.frames_incomplete,
            stat.current_frames_interval ? static_cast<double>(stat.current_frames_count) * 1e6 /
                                               static_cast<double>(stat.current_frames_interval)
                                         : 0.0};
        return LIBCSI_OK;
    });
}

int32_t libcsi_reset_stream_statistics(device_handle_t* pDeviceHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        std::lock_guard<std::mutex> frames(device.frameMutex);
        if (device.state == DeviceState::Closed || device.state == DeviceState::Closing) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", "libcsi_reset_stream_statistics");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_RESET_STREAMSTAT, nullptr) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_RESET_STREAMSTAT failed (errno=%d, %s).\n",
                       "libcsi_reset_stream_statistics", errno, std::strerror(errno));
            return LIBCSI_DRIVER_CALL_FAILED;
        }
        std::lock_guard<std::mutex> statistics(device.statisticsMutex);
        device.m_nNumDroppedFrames = 0;
        return LIBCSI_OK;
    });
}

}
