#include "support/Mutex.h"

#include "base/Exception.h"

namespace QEL { namespace System {

void Mutex::Take(std::size_t depth)
{
    owner.store(std::this_thread::get_id(), std::memory_order_release);
    count = depth;
}

void Mutex::Lock()
{
    std::unique_lock<std::mutex> lock(state);
    if (IsHeldByCurrentThread()) {
        ++count;
        return;
    }
    released.wait(lock, [this] { return count == 0; });
    Take(1);
}

bool Mutex::TryLock()
{
    std::lock_guard<std::mutex> lock(state);
    if (IsHeldByCurrentThread()) {
        ++count;
        return true;
    }
    if (count != 0)
        return false;
    Take(1);
    return true;
}

bool Mutex::TimedLock(TimePoint absoluteTime)
{
    std::unique_lock<std::mutex> lock(state);
    if (IsHeldByCurrentThread()) {
        ++count;
        return true;
    }
    if (!released.wait_until(lock, absoluteTime, [this] { return count == 0; }))
        return false;
    Take(1);
    return true;
}

void Mutex::Unlock()
{
    std::lock_guard<std::mutex> lock(state);
    if (!IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    if (--count == 0) {
        owner.store(std::thread::id(), std::memory_order_release);
        released.notify_one();
    }
}

std::size_t Mutex::ReleaseFully()
{
    std::lock_guard<std::mutex> lock(state);
    if (!IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    std::size_t depth = count;
    count = 0;
    owner.store(std::thread::id(), std::memory_order_release);
    released.notify_one();
    return depth;
}

void Mutex::Restore(std::size_t depth)
{
    std::unique_lock<std::mutex> lock(state);
    released.wait(lock, [this] { return count == 0; });
    Take(depth);
}

} }
