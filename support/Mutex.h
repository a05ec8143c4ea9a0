#pragma once

#include "base/Object.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

namespace QEL { namespace System {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// Recursive mutex with a timed lock. The recursion count is explicit so that a
// condition wait can release the mutex fully and restore it afterwards.
// Ownership is one atomic: a free mutex is taken and given back without a
// system call or a second lock, which matters because every producer call
// takes several. Only a thread that finds it held waits, on `released`, and
// only then does the one giving it back take `state` to wake it.
// ThreadSanitizer is told of the ownership itself, so that it sees this
// mutex's lock order as any other's.
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
    // Makes this thread the owner, waiting while another is, until `until`
    // when given; false when that passed first.
    bool Take(const TimePoint* until);
    bool TakeIfFree();
    bool TakeWaiting(const TimePoint* until);
    void GiveBack();

    std::atomic<std::thread::id> owner{}; // no thread: free
    std::atomic<std::uint32_t> waiters{0};
    std::mutex state; // only for waiting and waking
    std::condition_variable released;
    std::size_t count = 0; // read and written by the owner only
};

} }
