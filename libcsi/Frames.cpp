// Frames: announcing, allocating, queueing and revoking the buffers frames land in.
#include "libcsi/Boundary.h"
#include "libcsi/Config.h"
#include "libcsi/Device.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"
#include "libcsi/OsSeam.h"

#include <boost/scope_exit.hpp>

#include <linux/videodev2.h>

#include <sys/mman.h>

#include <cinttypes>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace QEL { namespace LibCSIImpl {

namespace {

// Kept per camera, since each camera's node has a format of its own. While the
// camera streams its format cannot change: a frame of another geometry is refused.
int32_t SetFormat(const char* function, Device& device, std::uint64_t totalSize, std::uint32_t ipuX, std::uint32_t ipuY)
{
    if (!device.formatDirty && device.formatTotalSize == totalSize && device.formatIpuX == ipuX &&
        device.formatIpuY == ipuY)
        return LIBCSI_OK;
    if (device.state == DeviceState::Streaming) {
        LIBCSI_LOG(TierError, " %s ERROR: Frame geometry differs from the running stream's.\n", function);
        return LIBCSI_INVALID_DEVICE_STATE;
    }
    device.formatDirty = false;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = ipuX;
    format.fmt.pix.height = ipuY;
    format.fmt.pix.pixelformat = QEL_PIX_FMT_TP31;
    format.fmt.pix.bytesperline = 0;
    format.fmt.pix.sizeimage = static_cast<std::uint32_t>(totalSize);
    if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_S_FMT, &format) < 0) {
        device.formatDirty = true;
        LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_S_FMT failed (errno=%d, %s).\n", "set_format", errno,
                   std::strerror(errno));
        return LIBCSI_DRIVER_CALL_FAILED;
    }
    LIBCSI_LOG(TierTrace, " VIDIOC_S_FMT succcess. SizeImage=%d Width=%d, Height=%d\n",
               static_cast<int>(format.fmt.pix.sizeimage), static_cast<int>(ipuX), static_cast<int>(ipuY));
    device.formatTotalSize = totalSize;
    device.formatIpuX = ipuX;
    device.formatIpuY = ipuY;
    return LIBCSI_OK;
}

bool CheckAxis(const char* axis, std::uint32_t value, std::uint32_t min, std::uint32_t max, std::uint32_t inc)
{
    if (inc == 0 || value % inc != 0 || value < min || value > max) {
        LIBCSI_LOG(TierError, " ERROR: %s value did not pass sanity check. (Min=%d, Max=%d, Inc=%d)\n", axis,
                   static_cast<int>(min), static_cast<int>(max), static_cast<int>(inc));
        return false;
    }
    return true;
}

int BufferRequest(Device& device, unsigned long request, std::uint32_t index, std::uint32_t memory)
{
    qel_buffer_request record{index, V4L2_BUF_TYPE_VIDEO_CAPTURE, memory};
    return Os::Current().Ioctl(device.m_nFileHandle, request, &record);
}

// Allocates the driver's buffer of `frame` and maps it; the pointer to the mapping.
int32_t MapDriverBuffer(Device& device, Frame& frame, std::uint8_t*& mapping)
{
    if (BufferRequest(device, VIDIOC_MEM_ALLOC, frame.m_nBufferIndex, V4L2_MEMORY_MMAP) < 0) {
        LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_MEM_ALLOC failed (errno=%d, %s).\n", "map_frame", errno,
                   std::strerror(errno));
        return LIBCSI_DRIVER_CALL_FAILED;
    }
    v4l2_buffer buf{};
    buf.index = frame.m_nBufferIndex;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_QUERYBUF, &buf) < 0) {
        LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_QUERYBUF failed (errno=%d, %s).\n", "map_frame", errno,
                   std::strerror(errno));
        BufferRequest(device, VIDIOC_MEM_FREE, frame.m_nBufferIndex, V4L2_MEMORY_MMAP);
        return LIBCSI_DRIVER_CALL_FAILED;
    }
    const std::uint32_t offset = buf.m.offset;
    void* memory = Os::Current().Mmap(nullptr, frame.totalSize, PROT_READ | PROT_WRITE, MAP_SHARED,
                                      device.m_nFileHandle, static_cast<off_t>(offset));
    if (memory == MAP_FAILED) {
        LIBCSI_LOG(TierError, " %s ERROR: Failed to map user memory (errno=%d, %s).\n", "map_frame", errno,
                   std::strerror(errno));
        BufferRequest(device, VIDIOC_MEM_FREE, frame.m_nBufferIndex, V4L2_MEMORY_MMAP);
        return LIBCSI_MAP_FAILED;
    }
    mapping = static_cast<std::uint8_t*>(memory);
    return LIBCSI_OK;
}

// Leader, payload and trailer pointers into one block of memory.
void PointInto(std::uint8_t* start, const lib_frame_transfer& sizes, std::uint8_t*& leader, std::uint8_t*& payload,
               std::uint8_t*& trailer)
{
    leader = sizes.m_nLeaderSize ? start : nullptr;
    payload = start + sizes.m_nLeaderSize;
    trailer = sizes.m_nTrailerSize ? payload + sizes.m_nPayloadSize : nullptr;
}

std::uintptr_t FirstPointer(const lib_frame_transfer& transfer)
{
    return static_cast<std::uintptr_t>(transfer.m_nLeaderSize ? transfer.m_pLeader : transfer.m_pPayload);
}

// The transfer record's sizes and pointers: announce needs the caller's
// memory, allocate only the sizes.
int32_t CheckTransfer(const char* function, const lib_frame_transfer& t, bool allocate)
{
    if (t.m_nPayloadSize == 0 || (!allocate && t.m_pPayload == 0)) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter for payload.\n", function);
        return LIBCSI_INVALID_PARAMETER;
    }
    // The driver's image size is 32 bits, and so is size_t on the 32-bit boards:
    // a larger frame would be allocated, mapped and described cut short.
    constexpr std::uint64_t largest = std::numeric_limits<std::uint32_t>::max();
    if (t.m_nLeaderSize > largest || t.m_nPayloadSize > largest || t.m_nTrailerSize > largest ||
        t.m_nLeaderSize + t.m_nPayloadSize + t.m_nTrailerSize > largest) {
        LIBCSI_LOG(TierError, " %s ERROR: Frame of %" PRIu64 "+%" PRIu64 "+%" PRIu64 " bytes is larger than 4 GiB.\n",
                   function, static_cast<std::uint64_t>(t.m_nLeaderSize), static_cast<std::uint64_t>(t.m_nPayloadSize),
                   static_cast<std::uint64_t>(t.m_nTrailerSize));
        return LIBCSI_INVALID_PARAMETER;
    }
    if (allocate)
        return LIBCSI_OK;
    if ((t.m_nLeaderSize == 0) != (t.m_pLeader == 0)) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter for leader.\n", function);
        return LIBCSI_INVALID_PARAMETER;
    }
    if ((t.m_nTrailerSize == 0) != (t.m_pTrailer == 0)) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter for trailer.\n", function);
        return LIBCSI_INVALID_PARAMETER;
    }
    return LIBCSI_OK;
}

// The lowest buffer index a revoke left free, else the next one.
std::uint32_t TakeBufferIndex(Device& device)
{
    if (device.freeBufferIndices.empty())
        return static_cast<std::uint32_t>(device.announcedFrames.size());
    const std::uint32_t index = *device.freeBufferIndices.begin();
    device.freeBufferIndices.erase(device.freeBufferIndices.begin());
    return index;
}

// The caller's memory, given to the driver as user pointers: one block, aligned.
int32_t UseCallerMemory(const char* function, const Device& device, Frame& frame, const lib_frame_transfer& t)
{
    // The driver fills one user block from its start: parts that lie apart would be overrun.
    const bool contiguous = (t.m_pLeader == 0 || t.m_pPayload == t.m_pLeader + t.m_nLeaderSize) &&
                            (t.m_pTrailer == 0 || t.m_pTrailer == t.m_pPayload + t.m_nPayloadSize);
    if (!contiguous) {
        LIBCSI_LOG(TierError,
                   " %s ERROR: USRPTR frame parts are not one block (leader, payload and trailer must follow each "
                   "other).\n",
                   function);
        return LIBCSI_INVALID_PARAMETER;
    }
    const std::uint32_t alignment = std::max<std::uint32_t>(1, device.driverInfo.usrptr_alignment);
    if (FirstPointer(t) % alignment != 0) {
        LIBCSI_LOG(TierError, " %s ERROR: USRPTR memory alignment invalid. BufferStart=%p, ReqAlignment=%u\n",
                   function, reinterpret_cast<void*>(FirstPointer(t)), alignment);
        return LIBCSI_ALIGNMENT_INVALID;
    }
    frame.memoryMode = MemoryMode::UserptrExternal;
    return LIBCSI_OK;
}

// The driver's own buffer, mapped: an allocated frame points into it, an
// announced one is copied out of it by the dequeue thread.
int32_t UseDriverMapping(Device& device, Frame& frame, lib_frame_transfer& t, bool allocate)
{
    frame.memoryMode = MemoryMode::MMAP;
    std::uint8_t* mapping = nullptr;
    if (int32_t result = MapDriverBuffer(device, frame, mapping))
        return result;
    std::uint8_t *leader, *payload, *trailer;
    PointInto(mapping, t, leader, payload, trailer);
    if (allocate) {
        t.m_pLeader = reinterpret_cast<std::uintptr_t>(leader);
        t.m_pPayload = reinterpret_cast<std::uintptr_t>(payload);
        t.m_pTrailer = reinterpret_cast<std::uintptr_t>(trailer);
        return LIBCSI_OK;
    }
    frame.driverLeader = leader;
    frame.driverPayload = payload;
    frame.driverTrailer = trailer;
    frame.driverLeaderSize = t.m_nLeaderSize;
    frame.driverPayloadSize = t.m_nPayloadSize;
    frame.driverTrailerSize = t.m_nTrailerSize;
    return LIBCSI_OK;
}

// Aligned memory allocated here, given to the driver as user pointers.
int32_t AllocateUserMemory(const char* function, Device& device, Frame& frame, lib_frame_transfer& t)
{
    frame.memoryMode = MemoryMode::UserptrInternal;
    if (BufferRequest(device, VIDIOC_MEM_ALLOC, frame.m_nBufferIndex, V4L2_MEMORY_USERPTR) < 0) {
        LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_MEM_ALLOC failed (errno=%d, %s).\n", function, errno,
                   std::strerror(errno));
        return LIBCSI_DRIVER_CALL_FAILED;
    }
    const std::uint32_t alignment = std::max<std::uint32_t>(1, device.driverInfo.usrptr_alignment);
    const std::uint64_t rounded = (frame.totalSize + alignment - 1) / alignment * alignment;
    auto* memory = static_cast<std::uint8_t*>(std::aligned_alloc(alignment, rounded));
    if (!memory) {
        LIBCSI_LOG(TierError, " %s ERROR: Failed to allocate memory (errno=%d, %s).\n", function, errno,
                   std::strerror(errno));
        BufferRequest(device, VIDIOC_MEM_FREE, frame.m_nBufferIndex, V4L2_MEMORY_USERPTR);
        return LIBCSI_ERROR;
    }
    std::uint8_t *leader, *payload, *trailer;
    PointInto(memory, t, leader, payload, trailer);
    t.m_pLeader = reinterpret_cast<std::uintptr_t>(leader);
    t.m_pPayload = reinterpret_cast<std::uintptr_t>(payload);
    t.m_pTrailer = reinterpret_cast<std::uintptr_t>(trailer);
    return LIBCSI_OK;
}

// The checks and steps announce and allocate share; `allocate` picks the variant.
int32_t Announce(const char* function, device_handle_t* handle, std::uint32_t ipuX, std::uint32_t ipuY,
                 lib_frame_transfer* pFrame, frame_handle_t** ppFrameHandle, bool allocate)
{
    LIBCSI_LOG(TierTrace, " nIPU_X=%u, nIPU_Y=%u\n", ipuX, ipuY); // the boundary refused a dead handle
    if (!pFrame) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter pFrame.\n", function);
        return LIBCSI_INVALID_PARAMETER;
    }
    lib_frame_transfer& t = *pFrame;
    if (int32_t result = CheckTransfer(function, t, allocate))
        return result;
    if (ipuX == 0 || ipuY == 0) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid IPU_X (%u) or IPU_Y (%u)\n", function, ipuX, ipuY);
        return LIBCSI_INVALID_PARAMETER;
    }
    const std::uint64_t total = t.m_nLeaderSize + t.m_nPayloadSize + t.m_nTrailerSize;
    Device& device = *handle;
    if (static_cast<std::uint32_t>(ipuX * ipuY) != total) {
        LIBCSI_LOG(TierWarning, " %s WARNING: Invalid parameter: Buffer size is not equal to nIPU_X*nIPU_Y.\n",
                   function);
        std::lock_guard<std::mutex> lock(device.mutex);
        device.buffersFit = false;
    }
    std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
    auto library = CurrentLibrary();
    if (!library)
        return LIBCSI_NOT_INITIALIZED;
    std::lock_guard<std::mutex> lock(device.mutex);
    const qel_ipu_restrictions& ipu = device.ipuRestrictions;
    if (!CheckAxis("IPU_X", ipuX, ipu.x_min, ipu.x_max, ipu.x_inc) ||
        !CheckAxis("IPU_Y", ipuY, ipu.y_min, ipu.y_max, ipu.y_inc))
        return LIBCSI_INVALID_PARAMETER;
    if (!ppFrameHandle) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter ppFrameHandle\n", function);
        return LIBCSI_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> frames(device.frameMutex);
    // A frame may join a running stream (the consumer's dynamic buffer
    // handling): its buffer goes to the driver when it is queued.
    if (device.state != DeviceState::Open && device.state != DeviceState::ResetRequested &&
        device.state != DeviceState::Streaming) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", function);
        return LIBCSI_INVALID_DEVICE_STATE;
    }
    // Asked before any memory is taken: nothing after this point can refuse the frame.
    auto owner = FindDevice(*library, &device);
    if (!owner) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid device handle.\n", function);
        return LIBCSI_INVALID_PARAMETER;
    }
    std::shared_ptr<Frame> frame;
    try {
        frame = std::make_shared<Frame>();
    } catch (...) {
        LIBCSI_LOG(TierError, " %s ERROR: Failed to create frame handle.\n", function);
        return LIBCSI_READ_FAILED;
    }
    LIBCSI_LOG(TierTrace, " nTotalFrameSize=%" PRIu64 " (L+P+T=%" PRIu64 "+%" PRIu64 "+%" PRIu64 ")\n",
               static_cast<std::uint64_t>(total), static_cast<std::uint64_t>(t.m_nLeaderSize),
               static_cast<std::uint64_t>(t.m_nPayloadSize), static_cast<std::uint64_t>(t.m_nTrailerSize));
    if (int32_t result = SetFormat(function, device, total, ipuX, ipuY))
        return result;

    const std::uint32_t index = TakeBufferIndex(device);
    bool announced = false;
    BOOST_SCOPE_EXIT_ALL(&) {
        if (!announced)
            device.freeBufferIndices.insert(index);
    };
    const Config& config = TheConfig();
    if (device.state == DeviceState::Streaming && config.enableUserptr && index >= device.userBuffersDeclared) {
        LIBCSI_LOG(TierError, " %s ERROR: No buffer index free while streaming (%u user pointer buffers).\n", function,
                   device.userBuffersDeclared);
        return LIBCSI_INVALID_DEVICE_STATE;
    }
    LIBCSI_LOG(TierTrace, " nNextFreeIndex=%d\n", static_cast<int>(index));
    frame->m_nBufferIndex = index;
    frame->totalSize = total;
    const int32_t memory = !config.enableUserptr ? UseDriverMapping(device, *frame, t, allocate)
                           : allocate            ? AllocateUserMemory(function, device, *frame, t)
                                                 : UseCallerMemory(function, device, *frame, t);
    if (memory != LIBCSI_OK)
        return memory;

    frame->transfer = pFrame;
    frame->queued = false;
    frame->origin = allocate ? FrameOrigin::Allocated : FrameOrigin::Announced;
    frame->m_pDeviceHandle = &device;
    frame->device = owner;
    // The device's mode follows the latest announce, but not while it streams:
    // the dequeue thread reads it, and a joining frame's mode is of the same
    // kind (mapped, or user pointers), as enable_userptr decides for all.
    if (device.state != DeviceState::Streaming)
        device.memoryMode = frame->memoryMode;
    device.announcedFrames.insert(frame);
    announced = true;
    *ppFrameHandle = frame.get();
    LIBCSI_LOG(TierTrace, allocate ? " Frame allocated and announced. Index=%d\n" : " Frame announced. Index=%d\n",
               static_cast<int>(index));
    return LIBCSI_OK;
}

// Queued in the driver, or waiting in the input queue for the stream to start:
// before the start the flag is not yet set, and a frame in the input queue
// twice, or revoked from it, would shift every later buffer index.
bool IsQueued(const Device& device, const std::shared_ptr<Frame>& frame)
{
    return frame->queued || std::find(device.m_InputFrameQueue.begin(), device.m_InputFrameQueue.end(), frame) !=
                                device.m_InputFrameQueue.end();
}

// A frame that a flush or a stop left in the output queue still goes to its
// callback, which takes the frame's callback and context with it: queued
// again before that, the new queueing would lose them.
bool IsAwaitingCallback(Device& device, const std::shared_ptr<Frame>& frame)
{
    std::lock_guard<std::mutex> output(device.outputMutex);
    return std::find(device.m_OutputFrameQueue.begin(), device.m_OutputFrameQueue.end(), frame) !=
           device.m_OutputFrameQueue.end();
}

std::shared_ptr<Frame> FindFrame(Device& device, const Frame* handle)
{
    for (const auto& frame : device.announcedFrames)
        if (frame.get() == handle)
            return frame;
    return nullptr;
}

// Called with the frame mutex held: a frame that is not queued cannot come
// back into the output queue meanwhile.
void DropLateDelivery(Device& device, const Frame* handle)
{
    const std::shared_ptr<Frame> frame = FindFrame(device, handle);
    if (!frame)
        return;
    std::lock_guard<std::mutex> dequeue(device.dequeueMutex);
    std::lock_guard<std::mutex> output(device.outputMutex);
    if (IsQueued(device, frame))
        return;
    auto& waiting = device.m_OutputFrameQueue;
    waiting.erase(std::remove(waiting.begin(), waiting.end(), frame), waiting.end());
}

}

bool QueueBuffer(Device& device, const Frame& frame)
{
    v4l2_buffer buf{};
    buf.index = frame.m_nBufferIndex;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (frame.memoryMode == MemoryMode::MMAP) {
        buf.memory = V4L2_MEMORY_MMAP;
    } else {
        const std::uint32_t alignment = std::max<std::uint32_t>(1, device.driverInfo.usrptr_alignment);
        buf.memory = V4L2_MEMORY_USERPTR;
        buf.m.userptr = static_cast<unsigned long>(FirstPointer(*frame.transfer));
        buf.length = static_cast<std::uint32_t>(alignment + (frame.totalSize / alignment) * alignment);
    }
    return Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_QBUF, &buf) >= 0;
}

std::uint64_t MonotonicMicroseconds()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

} }

using namespace QEL;
using namespace QEL::LibCSIImpl;

extern "C" {

int32_t libcsi_announce_frame(device_handle_t* pDeviceHandle, uint32_t nIPU_X, uint32_t nIPU_Y,
                              lib_frame_transfer* pFrame, frame_handle_t** ppFrameHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        return Announce("libcsi_announce_frame", &device, nIPU_X, nIPU_Y, pFrame, ppFrameHandle, false);
    });
}

int32_t libcsi_alloc_and_announce_frame(device_handle_t* pDeviceHandle, uint32_t nIPU_X, uint32_t nIPU_Y,
                                        lib_frame_transfer* pFrame, frame_handle_t** ppFrameHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        return Announce("libcsi_alloc_and_announce_frame", &device, nIPU_X, nIPU_Y, pFrame, ppFrameHandle, true);
    });
}

int32_t libcsi_queue_frame(device_handle_t* pDeviceHandle, frame_handle_t* pFrameHandle,
                           libcsi_frame_callback_t pFrameCallback, void* pContext)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        const std::uint64_t start = MonotonicMicroseconds();
        if (!pFrameHandle || !pFrameCallback)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::mutex> frames(device.frameMutex);
        if (device.state == DeviceState::Closed || device.state == DeviceState::Closing) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", "libcsi_queue_frame");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        if (pFrameHandle->m_pDeviceHandle != &device) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter: pDeviceHandle\n", "libcsi_queue_frame");
            return LIBCSI_INVALID_PARAMETER;
        }
        std::lock_guard<std::mutex> dequeue(device.dequeueMutex);
        auto frame = FindFrame(device, pFrameHandle);
        if (!frame) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid Parameter: pFrameHandle.\n", "libcsi_queue_frame");
            return LIBCSI_INVALID_PARAMETER;
        }
        if (IsQueued(device, frame) || IsAwaitingCallback(device, frame)) {
            LIBCSI_LOG(TierError, " ERROR: Frame already queued.\n");
            return LIBCSI_FRAME_QUEUED;
        }
        if (device.state == DeviceState::Streaming) {
            if (!QueueBuffer(device, *frame)) {
                LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_QBUF failed (errno=%d, %s).\n", "libcsi_queue_frame", errno,
                           std::strerror(errno));
                return LIBCSI_DRIVER_CALL_FAILED;
            }
            frame->queued = true;
        }
        frame->callback = pFrameCallback;
        frame->context = pContext;
        device.m_InputFrameQueue.push_back(frame);
        LIBCSI_LOG(TierVerbose, " libcsi_queue_frame took %luus\n",
                   static_cast<unsigned long>(MonotonicMicroseconds() - start));
        return LIBCSI_OK;
    });
}

int32_t libcsi_revoke_frame(device_handle_t* pDeviceHandle, frame_handle_t* pFrameHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        if (device.m_nFileHandle == -1) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter: m_nFileHandle\n", "libcsi_revoke_frame");
            return LIBCSI_INVALID_PARAMETER;
        }
        if (!pFrameHandle)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::mutex> frames(device.frameMutex);
        // A late delivery of the frame, left in the output queue by a stop or a
        // flush, would reach its callback after the caller took the memory
        // back: it is dropped. A callback running already is not waited for:
        // the caller may hold what that callback needs.
        DropLateDelivery(device, pFrameHandle);
        if (device.state == DeviceState::Closed)
            return LIBCSI_INVALID_DEVICE_STATE;
        if (pFrameHandle->m_pDeviceHandle != &device) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter: pDeviceHandle != pFrameHandle->m_pDeviceHandle\n",
                       "libcsi_revoke_frame");
            return LIBCSI_INVALID_PARAMETER;
        }
        auto frame = FindFrame(device, pFrameHandle);
        if (!frame) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid Parameter: pFrameHandle.\n", "libcsi_revoke_frame");
            return LIBCSI_INVALID_PARAMETER;
        }
        std::lock_guard<std::mutex> dequeue(device.dequeueMutex);
        if (IsQueued(device, frame)) {
            LIBCSI_LOG(TierError, " %s ERROR: Frame is still queued!\n", "libcsi_revoke_frame");
            return LIBCSI_FRAME_QUEUED;
        }
        if (frame->memoryMode == MemoryMode::MMAP) {
            void* start = frame->origin == FrameOrigin::Announced
                              ? static_cast<void*>(frame->driverLeader ? frame->driverLeader : frame->driverPayload)
                              : reinterpret_cast<void*>(FirstPointer(*frame->transfer));
            if (Os::Current().Munmap(start, frame->totalSize) < 0) {
                LIBCSI_LOG(TierError, " %s ERROR: Failed to unmap user memory (errno=%d, %s).\n", "libcsi_revoke_frame",
                           errno, std::strerror(errno));
                return LIBCSI_UNMAP_FAILED;
            }
            if (BufferRequest(device, VIDIOC_MEM_FREE, frame->m_nBufferIndex, V4L2_MEMORY_MMAP) < 0) {
                LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_MEM_FREE failed (errno=%d, %s).\n", "libcsi_revoke_frame",
                           errno, std::strerror(errno));
                return LIBCSI_DRIVER_CALL_FAILED;
            }
        } else if (frame->memoryMode == MemoryMode::UserptrInternal) {
            // The index the allocation made exist goes too, so that a later frame can take it.
            if (BufferRequest(device, VIDIOC_MEM_FREE, frame->m_nBufferIndex, V4L2_MEMORY_USERPTR) < 0) {
                LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_MEM_FREE failed (errno=%d, %s).\n", "libcsi_revoke_frame",
                           errno, std::strerror(errno));
                return LIBCSI_DRIVER_CALL_FAILED;
            }
            std::free(reinterpret_cast<void*>(FirstPointer(*frame->transfer)));
        }
        device.freeBufferIndices.insert(frame->m_nBufferIndex);
        device.announcedFrames.erase(frame);
        if (device.announcedFrames.empty()) {
            device.buffersFit = true;
            // The driver keeps its user-pointer buffers while it streams; the next start declares them anew.
            if (device.memoryMode != MemoryMode::MMAP && device.state != DeviceState::Streaming) {
                v4l2_requestbuffers request{};
                request.count = 0;
                request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
                request.memory = V4L2_MEMORY_USERPTR;
                if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_REQBUFS, &request) < 0) {
                    LIBCSI_LOG(TierError, " %s ERROR: VIDIOC_REQBUFS failed (errno=%d, %s).\n", "libcsi_revoke_frame",
                               errno, std::strerror(errno));
                    return LIBCSI_DRIVER_CALL_FAILED;
                }
            }
        }
        return LIBCSI_OK;
    });
}

int32_t libcsi_flush_frames(device_handle_t* pDeviceHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        std::lock_guard<std::mutex> frames(device.frameMutex);
        if (device.state == DeviceState::Closed) {
            LIBCSI_LOG(TierError, " ERROR: Invalid device state\n");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        return FlushFrames(device);
    });
}

}
