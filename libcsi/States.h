#pragma once

// The states of libcsi's devices, frames and threads.
namespace QEL { namespace LibCSIImpl {

// Stopping and Closing are passing states: a caller waits until the device leaves them.
enum class DeviceState { Closed, Open, Streaming, Stopping, Closing, ResetRequested };
inline bool Passing(DeviceState state) { return state == DeviceState::Stopping || state == DeviceState::Closing; }
// Where a frame's memory comes from: the driver's mapped buffers (copied out),
// memory allocated here, or the caller's.
enum class MemoryMode { MMAP, UserptrInternal, UserptrExternal };
// Whether libcsi allocated a frame's transfer memory (and frees it at the revoke).
enum class FrameOrigin { Announced, Allocated };
// A libcsi thread's life; its owner requests the stop and waits for Stopped.
enum class ThreadState { Stopped, Running, StopRequested };

} }
