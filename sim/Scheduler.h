#pragma once

#include "base/NamedThread.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace QEL { namespace Sim {

// Runs actions at a later time on one thread of its own, which the destructor
// stops and joins; actions still pending then are dropped.
class Scheduler {
public:
    using Clock = std::chrono::steady_clock;

    Scheduler() : worker(Base::StartNamedThread("vcam-scheduler", [this] { Run(); })) {}
    ~Scheduler()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        worker.join();
    }

    void After(std::chrono::milliseconds delay, std::function<void()> action)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            actions.emplace(Clock::now() + delay, std::move(action));
        }
        changed.notify_all();
    }

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            if (actions.empty()) {
                changed.wait(lock);
                continue;
            }
            auto next = actions.begin();
            if (Clock::now() < next->first) {
                changed.wait_until(lock, next->first);
                continue;
            }
            auto action = std::move(next->second);
            actions.erase(next);
            lock.unlock();
            action();
            lock.lock();
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::multimap<Clock::time_point, std::function<void()>> actions;
    bool stopping = false;
    std::thread worker;
};

} }
