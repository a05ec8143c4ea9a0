#pragma once

#include "base/Exception.h"
#include "support/Mutex.h"

#include <condition_variable>

namespace QEL { namespace System {

// Condition variable for System::Mutex: a wait releases every recursion level
// of the caller and restores them all before it returns.
class Condition : public virtual Object {
public:
    void Signal();
    void Broadcast();
    void Wait(Mutex& mutex);
    // True when woken, false when the time passed first.
    bool TimedWait(Mutex& mutex, TimePoint absoluteTime);

private:
    std::condition_variable_any condition;
};

} }
