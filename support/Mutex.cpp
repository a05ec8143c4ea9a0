#include "support/Mutex.h"

#include "support/Exception.h"

namespace QEL { namespace System {

bool Mutex::AcquireRecursive()
{
    if (!IsHeldByCurrentThread())
        return false;
    ++count;
    return true;
}

void Mutex::TakeOwnership()
{
    owner.store(std::this_thread::get_id(), std::memory_order_release);
    count = 1;
}

void Mutex::Lock()
{
    if (AcquireRecursive())
        return;
    native.lock();
    TakeOwnership();
}

bool Mutex::TryLock()
{
    if (AcquireRecursive())
        return true;
    if (!native.try_lock())
        return false;
    TakeOwnership();
    return true;
}

bool Mutex::TimedLock(TimePoint absoluteTime)
{
    if (AcquireRecursive())
        return true;
    if (!native.try_lock_until(absoluteTime))
        return false;
    TakeOwnership();
    return true;
}

void Mutex::Unlock()
{
    if (!IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    if (--count == 0) {
        owner.store(std::thread::id(), std::memory_order_release);
        native.unlock();
    }
}

std::size_t Mutex::ReleaseFully()
{
    if (!IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    std::size_t depth = count;
    count = 0;
    owner.store(std::thread::id(), std::memory_order_release);
    return depth;
}

void Mutex::Restore(std::size_t depth)
{
    owner.store(std::this_thread::get_id(), std::memory_order_release);
    count = depth;
}

} }
