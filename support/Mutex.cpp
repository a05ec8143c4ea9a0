#include "support/Mutex.h"

#include "base/Exception.h"

#if defined(__SANITIZE_THREAD__)
#define LORUN_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LORUN_TSAN 1
#endif
#endif

#ifdef LORUN_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace QEL { namespace System {

namespace {

// ThreadSanitizer's view of a Mutex; nothing in other builds.
struct Annotate {
#ifdef LORUN_TSAN
    static void Create(void* m) { __tsan_mutex_create(m, __tsan_mutex_write_reentrant | __tsan_mutex_not_static); }
    static void Destroy(void* m) { __tsan_mutex_destroy(m, __tsan_mutex_not_static); }
    static void PreLock(void* m, bool tried) { __tsan_mutex_pre_lock(m, tried ? __tsan_mutex_try_lock : 0); }
    static void PostLock(void* m, bool tried, bool failed)
    {
        __tsan_mutex_post_lock(m, (tried ? __tsan_mutex_try_lock : 0) | (failed ? __tsan_mutex_try_lock_failed : 0), 0);
    }
    static void PreUnlock(void* m) { __tsan_mutex_pre_unlock(m, 0); }
    static void PostUnlock(void* m) { __tsan_mutex_post_unlock(m, 0); }
    static void PreRelease(void* m) { __tsan_mutex_pre_unlock(m, __tsan_mutex_recursive_unlock); }
    static void PostRestore(void* m, std::size_t depth)
    {
        __tsan_mutex_post_lock(m, __tsan_mutex_recursive_lock, static_cast<int>(depth));
    }
#else
    static void Create(void*) {}
    static void Destroy(void*) {}
    static void PreLock(void*, bool) {}
    static void PostLock(void*, bool, bool) {}
    static void PreUnlock(void*) {}
    static void PostUnlock(void*) {}
    static void PreRelease(void*) {}
    static void PostRestore(void*, std::size_t) {}
#endif
};

}

Mutex::Mutex() { Annotate::Create(this); }

Mutex::~Mutex() { Annotate::Destroy(this); }

bool Mutex::Take(const TimePoint* until)
{
    return TakeIfFree() || TakeWaiting(until);
}

bool Mutex::TakeIfFree()
{
    std::thread::id none;
    return owner.compare_exchange_strong(none, std::this_thread::get_id(), std::memory_order_seq_cst);
}

// A waiter counts itself before it tries, and GiveBack frees before it looks
// at the count (both sequentially consistent): either the waiter's try sees
// the mutex free, or GiveBack sees the waiter and wakes it under `state`,
// which the waiter holds until it sleeps.
bool Mutex::TakeWaiting(const TimePoint* until)
{
    std::unique_lock<std::mutex> lock(state);
    waiters.fetch_add(1, std::memory_order_seq_cst);
    bool taken = true;
    if (until)
        taken = released.wait_until(lock, *until, [this] { return TakeIfFree(); });
    else
        released.wait(lock, [this] { return TakeIfFree(); });
    waiters.fetch_sub(1, std::memory_order_seq_cst);
    return taken;
}

void Mutex::GiveBack()
{
    owner.store(std::thread::id(), std::memory_order_seq_cst);
    if (waiters.load(std::memory_order_seq_cst) != 0) {
        const std::lock_guard<std::mutex> lock(state);
        released.notify_one();
    }
}

void Mutex::Lock()
{
    Annotate::PreLock(this, false);
    if (IsHeldByCurrentThread()) {
        ++count;
    } else {
        Take(nullptr);
        count = 1;
    }
    Annotate::PostLock(this, false, false);
}

bool Mutex::TryLock()
{
    Annotate::PreLock(this, true);
    bool taken = true;
    if (IsHeldByCurrentThread())
        ++count;
    else if (TakeIfFree())
        count = 1;
    else
        taken = false;
    Annotate::PostLock(this, true, !taken);
    return taken;
}

bool Mutex::TimedLock(TimePoint absoluteTime)
{
    Annotate::PreLock(this, true);
    bool taken = true;
    if (IsHeldByCurrentThread())
        ++count;
    else if (Take(&absoluteTime))
        count = 1;
    else
        taken = false;
    Annotate::PostLock(this, true, !taken);
    return taken;
}

// Only the owner can see itself as owner, so the test needs no lock.
void Mutex::Unlock()
{
    if (!IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    Annotate::PreUnlock(this);
    if (--count == 0)
        GiveBack();
    Annotate::PostUnlock(this);
}

std::size_t Mutex::ReleaseFully()
{
    if (!IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    Annotate::PreRelease(this);
    const std::size_t depth = count;
    count = 0;
    GiveBack();
    Annotate::PostUnlock(this);
    return depth;
}

void Mutex::Restore(std::size_t depth)
{
    Annotate::PreLock(this, false);
    Take(nullptr);
    count = depth;
    Annotate::PostRestore(this, depth);
}

} }
