#include "support/Condition.h"

namespace QEL { namespace System {

namespace {

// Presents a System::Mutex held at some depth as a plain lockable: unlocking
// releases every level, locking restores them.
class FullRelease {
public:
    FullRelease(Mutex& mutex, std::size_t depth) : mutex(mutex), depth(depth) {}
    void unlock() { depth = mutex.ReleaseFully(); }
    void lock() { mutex.Restore(depth); }

private:
    Mutex& mutex;
    std::size_t depth;
};

}

void Condition::Signal() { condition.notify_one(); }

void Condition::Broadcast() { condition.notify_all(); }

void Condition::Wait(Mutex& mutex)
{
    if (!mutex.IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    FullRelease lockable(mutex, 0);
    condition.wait(lockable);
}

bool Condition::TimedWait(Mutex& mutex, TimePoint absoluteTime)
{
    if (!mutex.IsHeldByCurrentThread())
        throw Exception("Mutex is not locked by this thread.");
    FullRelease lockable(mutex, 0);
    return condition.wait_until(lockable, absoluteTime) == std::cv_status::no_timeout;
}

} }
