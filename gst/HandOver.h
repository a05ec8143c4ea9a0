#pragma once

// GStreamer passes buffers between threads under GLib's own locks and atomic
// reference counts, which ThreadSanitizer cannot see unless GLib was built
// with it. These mark where a frame's bytes change hands, so that it orders
// the camera's writing with downstream's reading; in other builds they are
// nothing.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace LorunGst {

// The bytes at `data` are complete and leave this thread.
inline void HandOver(const void* data)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(const_cast<void*>(data));
#else
    (void)data;
#endif
}

// The bytes at `data` arrive in this thread.
inline void TakeOver(const void* data)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(const_cast<void*>(data));
#else
    (void)data;
#endif
}

}
