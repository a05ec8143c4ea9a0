#pragma once

#include "base/Object.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

namespace QEL { namespace System {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// Recursive mutex with a timed lock. The recursion count is explicit so that a
// condition wait can release the mutex fully and restore it afterwards.
// Built on a standard mutex held only for moments, so ThreadSanitizer is told
// of its own ownership: it then sees this mutex's lock order as any other.
class Mutex : public virtual Object {
public:
    Mutex();
    ~Mutex() override;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock();
    bool TryLock();
    bool TimedLock(TimePoint absoluteTime);
    void Unlock();

    bool IsHeldByCurrentThread() const { return owner.load(std::memory_order_acquire) == std::this_thread::get_id(); }

    // For condition waits: releases all levels at once and returns how many
    // there were; Restore takes the mutex again with that depth.
    std::size_t ReleaseFully();
    void Restore(std::size_t depth);

private:
    void Take(std::size_t depth);

    std::mutex state;
    std::condition_variable released;
    std::atomic<std::thread::id> owner{};
    std::size_t count = 0;
};

} }
