#include "support/Condition.h"
#include "base/Exception.h"
#include "support/MutexGuard.h"
#include "support/BasicLockable.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

using namespace QEL;
using namespace std::chrono_literals;

namespace {

bool LockedElsewhere(System::Mutex& mutex)
{
    bool taken = false;
    std::thread([&] {
        taken = mutex.TryLock();
        if (taken)
            mutex.Unlock();
    }).join();
    return !taken;
}

TEST(Mutex, RecursionIsCountedAndUnlockByAStrangerFails)
{
    System::Mutex mutex;
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_TRUE(mutex.TimedLock(System::Clock::now()));
    mutex.Unlock();
    mutex.Unlock();
    EXPECT_TRUE(LockedElsewhere(mutex)) << "one level is still held";

    std::string message;
    std::thread([&] {
        try {
            mutex.Unlock();
        } catch (const System::Exception& e) {
            message = e.GetMessage();
        }
    }).join();
    EXPECT_EQ("Mutex is not locked by this thread.", message);

    mutex.Unlock();
    EXPECT_FALSE(LockedElsewhere(mutex));
    EXPECT_THROW(mutex.Unlock(), System::Exception);
}

TEST(Mutex, TimedLockGivesUpWhenTheTimePasses)
{
    System::Mutex mutex;
    mutex.Lock();
    bool result = true;
    std::thread([&] { result = mutex.TimedLock(System::Clock::now() + 20ms); }).join();
    EXPECT_FALSE(result);
    mutex.Unlock();
}

// Threads take one mutex in every way it can be taken, two levels deep, and
// add to a plain counter under it. A lost increment means two owners at once;
// a thread that never comes back means a wake-up went missing.
TEST(Mutex, ContendedOwnersExcludeEachOtherAndEveryWaiterGetsItsTurn)
{
    System::Mutex mutex;
    System::Condition neverSignalled;
    std::uint64_t counter = 0; // guarded by the mutex alone
    constexpr int Threads = 4, Rounds = 4000;
    std::atomic<int> refused{0}, shallow{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < Rounds; ++i) {
                const int way = (i + t) % 4;
                if (way == 0) {
                    mutex.Lock();
                } else if (way == 1) {
                    while (!mutex.TryLock())
                        std::this_thread::yield();
                } else if (!mutex.TimedLock(System::Clock::now() + 1h)) {
                    ++refused;
                    continue;
                }
                mutex.Lock();
                if (way == 3) // gives both levels away and takes them back, contended
                    neverSignalled.TimedWait(mutex, System::Clock::now());
                const std::uint64_t seen = counter;
                counter = seen + 1;
                mutex.Unlock();
                if (!mutex.IsHeldByCurrentThread())
                    ++shallow;
                mutex.Unlock();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, refused.load());
    EXPECT_EQ(0, shallow.load()) << "a wait gave back fewer levels than it took";
    EXPECT_EQ(std::uint64_t{Threads} * Rounds, counter);
    EXPECT_FALSE(LockedElsewhere(mutex));
}

TEST(Condition, WaitReleasesEveryLevelAndRestoresThem)
{
    System::Mutex mutex;
    System::Condition condition;
    std::atomic<bool> ready{false};
    bool flag = false;

    std::thread waiter([&] {
        mutex.Lock();
        mutex.Lock();
        ready = true;
        while (!flag)
            condition.Wait(mutex);
        mutex.Unlock();
        // Still held once: nobody else may take it now.
        EXPECT_TRUE(mutex.IsHeldByCurrentThread());
        mutex.Unlock();
        EXPECT_FALSE(mutex.IsHeldByCurrentThread());
    });
    ASSERT_TRUE(Eventually([&] { return ready.load(); }));
    // Only possible because the waiter's wait released both levels; a hang
    // would be no answer, so the lock has a deadline.
    EXPECT_TRUE(mutex.TimedLock(System::Clock::now() + 10s));
    flag = true;
    condition.Signal();
    mutex.Unlock();
    waiter.join();
}

TEST(Condition, TimedWaitInThePastReturnsFalseAndKeepsTheMutex)
{
    System::Mutex mutex;
    System::Condition condition;
    mutex.Lock();
    EXPECT_FALSE(condition.TimedWait(mutex, System::Clock::now() - 1s));
    EXPECT_TRUE(mutex.IsHeldByCurrentThread());
    mutex.Unlock();

    EXPECT_THROW(condition.Wait(mutex), System::Exception) << "waiting needs the mutex";
}

TEST(Condition, BroadcastWakesAllWaiters)
{
    System::Mutex mutex;
    System::Condition condition;
    int waiting = 0;
    bool go = false;
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            System::MutexGuard guard(&mutex);
            ++waiting;
            while (!go)
                condition.Wait(mutex);
            ++woken;
        });
    ASSERT_TRUE(Eventually([&] {
        System::MutexGuard guard(&mutex);
        return waiting == 3; // all three inside their wait, which released the mutex
    }));
    {
        System::MutexGuard guard(&mutex);
        go = true;
        condition.Broadcast();
    }
    EXPECT_TRUE(Eventually([&] { return woken == 3; })) << "one broadcast wakes every waiter";
    if (woken != 3) {
        // A Signal in its place would leave the others waiting: let them go, so that the join ends.
        System::MutexGuard guard(&mutex);
        condition.Broadcast();
    }
    for (auto& t : threads)
        t.join();
}

class Owner : public Tools::BasicLockable<System::Lockable> {};

TEST(MutexGuard, RebindingReleasesTheOldMutexAndRefusesNulls)
{
    System::Mutex a, b;
    EXPECT_THROW(System::MutexGuard(nullptr), System::Exception);
    System::MutexGuard guard(&a);
    EXPECT_TRUE(guard.Lock(&a));
    EXPECT_TRUE(a.IsHeldByCurrentThread());
    EXPECT_TRUE(guard.TryLock(&b));
    EXPECT_FALSE(a.IsHeldByCurrentThread());
    EXPECT_TRUE(b.IsHeldByCurrentThread());

    std::atomic<bool> release{false};
    std::thread holder([&] {
        a.Lock();
        while (!release)
            std::this_thread::yield();
        a.Unlock();
    });
    ASSERT_TRUE(Eventually([&] { return LockedElsewhere(a); }));
    EXPECT_FALSE(guard.TimedLock(&a, System::Clock::now() + 1ms));
    EXPECT_FALSE(b.IsHeldByCurrentThread()) << "a failed rebind leaves the guard empty";
    release = true;
    EXPECT_TRUE(guard.TimedLock(&a, System::Clock::now() + 5s));
    guard.Release();
    holder.join();
}

TEST(SharedMutexGuard, ReleasesSafelyAfterTheOwnerDied)
{
    auto owner = std::make_shared<Owner>();
    std::weak_ptr<System::Mutex> mutex = owner->GetMutex();
    {
        System::SharedMutexGuard guard(owner);
        owner.reset();
        const auto held = mutex.lock();
        ASSERT_TRUE(held) << "the guard keeps the mutex of a dead owner";
        EXPECT_TRUE(held->IsHeldByCurrentThread());
    }
    EXPECT_TRUE(mutex.expired());
    EXPECT_THROW(System::SharedMutexGuard(std::shared_ptr<System::Mutex>()), System::Exception);
    try {
        System::SharedMutexGuard guard(static_cast<const System::Lockable*>(nullptr));
        FAIL();
    } catch (const System::Exception& e) {
        EXPECT_EQ("No lockable object passed.", e.GetMessage());
    }
}

}
