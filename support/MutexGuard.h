#pragma once

#include "support/Lockable.h"
#include "support/Mutex.h"

#include <memory>

namespace QEL { namespace System {

// Scoped lock over a mutex that the caller keeps alive.
class MutexGuard : public virtual Object {
public:
    // Holds nothing until one of the lock calls succeeds.
    MutexGuard() = default;
    explicit MutexGuard(Mutex* mutex);
    ~MutexGuard() override;
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

    bool Lock(Mutex* mutex);
    bool TryLock(Mutex* mutex);
    bool TimedLock(Mutex* mutex, TimePoint absoluteTime);
    void Release();

private:
    Mutex* held = nullptr;
};

// Scoped lock that shares ownership of the mutex, so it can be released after
// the object that owned the mutex has died.
class SharedMutexGuard : public virtual Object {
public:
    explicit SharedMutexGuard(std::shared_ptr<Mutex> mutex);
    explicit SharedMutexGuard(const Lockable* lockable);
    explicit SharedMutexGuard(const std::shared_ptr<const Lockable>& lockable);
    template <class T>
    explicit SharedMutexGuard(const std::shared_ptr<T>& lockable)
        : SharedMutexGuard(std::shared_ptr<const Lockable>(lockable)) {}
    ~SharedMutexGuard() override;
    SharedMutexGuard(const SharedMutexGuard&) = delete;
    SharedMutexGuard& operator=(const SharedMutexGuard&) = delete;

    bool Lock(std::shared_ptr<Mutex> mutex);
    bool TryLock(std::shared_ptr<Mutex> mutex);
    bool TimedLock(std::shared_ptr<Mutex> mutex, TimePoint absoluteTime);
    void Release();

private:
    std::shared_ptr<Mutex> held;
};

} }
