#include "support/Condition.h"

namespace QEL { namespace System {

void Condition::Signal() { condition.notify_one(); }

void Condition::Broadcast() { condition.notify_all(); }

void Condition::Wait(Mutex& mutex)
{
    std::size_t depth = mutex.ReleaseFully();
    condition.wait(mutex.native);
    mutex.Restore(depth);
}

bool Condition::TimedWait(Mutex& mutex, TimePoint absoluteTime)
{
    std::size_t depth = mutex.ReleaseFully();
    bool woken = condition.wait_until(mutex.native, absoluteTime) == std::cv_status::no_timeout;
    mutex.Restore(depth);
    return woken;
}

} }
