#include "support/MutexGuard.h"

#include "base/Exception.h"

namespace QEL { namespace System {

namespace {

std::shared_ptr<Mutex> MutexOf(const Lockable* lockable)
{
    if (!lockable)
        throw Exception("No lockable object passed.");
    return lockable->GetMutex();
}

template <class Pointer, class Attempt>
bool Rebind(Pointer& held, Pointer mutex, Attempt attempt)
{
    if (held && held == mutex)
        return true;
    if (held) {
        held->Unlock();
        held = nullptr;
    }
    if (!mutex || !attempt(*mutex))
        return false;
    held = std::move(mutex);
    return true;
}

}

MutexGuard::MutexGuard(Mutex* mutex)
{
    if (!mutex)
        throw Exception("No mutex passed.");
    mutex->Lock();
    held = mutex;
}

MutexGuard::~MutexGuard() { Release(); }

void MutexGuard::Release()
{
    if (held) {
        held->Unlock();
        held = nullptr;
    }
}

bool MutexGuard::Lock(Mutex* mutex)
{
    return Rebind(held, mutex, [](Mutex& m) { m.Lock(); return true; });
}

bool MutexGuard::TryLock(Mutex* mutex)
{
    return Rebind(held, mutex, [](Mutex& m) { return m.TryLock(); });
}

bool MutexGuard::TimedLock(Mutex* mutex, TimePoint absoluteTime)
{
    return Rebind(held, mutex, [&](Mutex& m) { return m.TimedLock(absoluteTime); });
}

SharedMutexGuard::SharedMutexGuard(std::shared_ptr<Mutex> mutex)
{
    if (!mutex)
        throw Exception("No mutex passed.");
    mutex->Lock();
    held = std::move(mutex);
}

SharedMutexGuard::SharedMutexGuard(const Lockable* lockable) : SharedMutexGuard(MutexOf(lockable)) {}

SharedMutexGuard::SharedMutexGuard(const std::shared_ptr<const Lockable>& lockable)
    : SharedMutexGuard(MutexOf(lockable.get())) {}

SharedMutexGuard::~SharedMutexGuard() { Release(); }

void SharedMutexGuard::Release()
{
    if (held) {
        held->Unlock();
        held.reset();
    }
}

bool SharedMutexGuard::Lock(std::shared_ptr<Mutex> mutex)
{
    return Rebind(held, std::move(mutex), [](Mutex& m) { m.Lock(); return true; });
}

bool SharedMutexGuard::TryLock(std::shared_ptr<Mutex> mutex)
{
    return Rebind(held, std::move(mutex), [](Mutex& m) { return m.TryLock(); });
}

bool SharedMutexGuard::TimedLock(std::shared_ptr<Mutex> mutex, TimePoint absoluteTime)
{
    return Rebind(held, std::move(mutex), [&](Mutex& m) { return m.TimedLock(absoluteTime); });
}

} }
