#pragma once

#include "libcsi/include/libcsi/libcsi.h"
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "libcsi/States.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>

struct libcsi_device_handle;

// A frame known to a device (frame_handle_t).
struct libcsi_frame_handle {
    libcsi_device_handle* m_pDeviceHandle = nullptr;
    std::weak_ptr<libcsi_device_handle> device;
    libcsi_frame_callback_t callback = nullptr;
    void* context = nullptr;
    lib_frame_transfer* transfer = nullptr;
    // The driver's mapped memory of a frame that must be copied; all zero otherwise.
    std::uint8_t* driverLeader = nullptr;
    std::uint8_t* driverPayload = nullptr;
    std::uint8_t* driverTrailer = nullptr;
    std::uint64_t driverLeaderSize = 0, driverPayloadSize = 0, driverTrailerSize = 0;
    std::uint64_t userValue = 0;
    std::uint32_t status = 1;
    // Written by API calls under the frame mutex and by the frame threads under
    // theirs: atomic, as no one mutex covers every writer.
    std::atomic<bool> queued{false};
    QEL::LibCSIImpl::FrameOrigin origin = QEL::LibCSIImpl::FrameOrigin::Announced;
    // The memory mode the frame was announced in: the device's follows the
    // latest announce, and a revoke must free only what this frame owns.
    QEL::LibCSIImpl::MemoryMode memoryMode = QEL::LibCSIImpl::MemoryMode::MMAP;
    std::uint32_t m_nBufferIndex = 0;
    std::uint64_t totalSize = 0;
};

// One camera of the device list (device_handle_t).
struct libcsi_device_handle {
    QEL::LibCSIImpl::DeviceState state = QEL::LibCSIImpl::DeviceState::Closed;
    int m_nFileHandle = -1;
    std::mutex mutex;                       // the device mutex
    std::condition_variable stateCondition; // notified at each state change
    std::mutex frameMutex;                  // serialises all frame management

    std::uint32_t deviceMode = 0;           // 1 when the camera reported GenCP mode at the last check
    int m_nStopDequeueEvent[2] = {-1, -1};
    std::uint8_t i2cPort = 255, i2cBus = 255, i2cAddress = 255;
    std::uint16_t m_nCCI_GCPRM_Address = 0;
    std::uint16_t m_nCCI_BCRM_Address = 0;
    std::uint32_t m_nGCPRM_Layout_Version = 0;
    std::uint16_t m_nGCPRM_GenCP_Outbuf_Address = 0;
    std::uint16_t m_nGCPRM_GenCP_Inbuf_Address = 0;
    std::string devNode, sysNode, portID, interfaceName;
    std::int32_t driverVersion[4] = {0, 0, 0, 0};
    qel_ipu_restrictions ipuRestrictions{};
    std::uint64_t dataIdentifiers[4] = {0, 0, 0, 0};
    qel_driver_info driverInfo{};
    std::uint32_t m_nMinAnnouncedFrames = 1;
    std::uint32_t m_nGenCPInBufferSize = 0, m_nGenCPOutBufferSize = 0;
    std::set<std::uint8_t> laneCounts;
    std::set<std::uint64_t> statisticsCapabilities;
    std::map<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> clockRanges;
    bool formatDirty = true;
    // The frame geometry this camera's node was last told (VIDIOC_S_FMT).
    std::uint64_t formatTotalSize = 0;
    std::uint32_t formatIpuX = 0, formatIpuY = 0;
    // User-pointer buffers the driver was told of when the stream started:
    // a frame announced while streaming must take an index below it.
    std::uint32_t userBuffersDeclared = 0;
    std::uint32_t streamRunCounter = 0;

    // Frames.
    std::set<std::shared_ptr<libcsi_frame_handle>> announcedFrames;
    std::set<std::uint32_t> freeBufferIndices;
    std::deque<std::shared_ptr<libcsi_frame_handle>> m_InputFrameQueue;
    std::deque<std::shared_ptr<libcsi_frame_handle>> m_OutputFrameQueue;
    QEL::LibCSIImpl::MemoryMode memoryMode = QEL::LibCSIImpl::MemoryMode::MMAP;
    bool buffersFit = true;

    // The frame threads.
    std::mutex outputMutex;
    std::condition_variable outputCondition;
    QEL::LibCSIImpl::ThreadState callbackThreadState = QEL::LibCSIImpl::ThreadState::Stopped;
    std::thread callbackThread;
    std::mutex dequeueMutex;
    std::condition_variable dequeueCondition;
    QEL::LibCSIImpl::ThreadState dequeueThreadState = QEL::LibCSIImpl::ThreadState::Stopped;
    std::thread dequeueThread;
    std::mutex statisticsMutex;

    std::uint64_t m_nNumReceivedFrames = 0, dumpedFrames = 0, m_nNumDroppedFrames = 0;
    std::uint32_t leaderKeyErrors = 0, trailerKeyErrors = 0, blockIDErrors = 0;
    std::uint64_t streamStartTime = 0; // milliseconds
};

namespace QEL { namespace LibCSIImpl {

using Device = ::libcsi_device_handle;
using Frame = ::libcsi_frame_handle;


// The frame threads of a device.
void FrameCallbackThread(Device& device);
void FrameDequeueThread(Device& device);
// Gives every buffer back from the driver and empties the input queue.
int32_t FlushFrames(Device& device);
// Stops a running stream: the driver first, then the dequeue thread.
int32_t StopStream(Device& device, std::uint32_t timeout);
// Sets the device's state and wakes whoever waits for it; under the device's mutex.
void SetState(Device& device, DeviceState state);
// Stops the callback thread and waits for its end.
void StopCallbackThread(Device& device);
// Hands a frame's buffer to the driver; false with errno set when it refuses.
bool QueueBuffer(Device& device, const Frame& frame);
// Microseconds of CLOCK_MONOTONIC.
std::uint64_t MonotonicMicroseconds();


// Reads an attribute of the camera's I2C client; the text up to the first
// line feed or 0xFF byte. False when it cannot be read.
bool ReadSysfs(std::uint8_t bus, std::uint8_t address, const char* name, std::string& text);

// Camera registers on the control bus, 2-byte addresses, values big endian.
// A read repeats its ioctl while that is interrupted.
bool ReadRegister(const Device& device, std::uint16_t address, void* data, std::uint32_t size);
// Returns the bytes that went over the bus, or a negative value.
int WriteRegister(const Device& device, std::uint16_t address, const void* data, std::uint32_t size);
bool ReadValue(const Device& device, std::uint16_t address, std::uint32_t size, std::uint64_t& value);
int WriteValue(const Device& device, std::uint16_t address, std::uint64_t value, std::uint32_t size);

// Polls a one-byte register until it holds `expected`: no pause for the first
// 10 ms, every 10 ms up to 110 ms, every 100 ms after that. False at the timeout.
bool WaitForRegister(const Device& device, std::uint16_t address, std::uint8_t expected, std::uint32_t timeoutMs);

} }
