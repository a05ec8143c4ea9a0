#pragma once

#include "base/GenTL.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

namespace QEL { namespace Base { class Exception; } }

// The descriptor the process would get next.
inline int LowestFreeDescriptor()
{
    const int next = ::dup(0);
    if (next < 0)
        throw std::runtime_error("No descriptor left to find the lowest free one.");
    ::close(next);
    return next;
}

// Runs `call` while the process may open only `count` more descriptors (the
// lowest free ones), and gives back what it returned.
template <class Call>
auto WithDescriptorsLeft(int count, Call call)
{
    rlimit saved{};
    if (getrlimit(RLIMIT_NOFILE, &saved) != 0)
        throw std::runtime_error("Could not read the descriptor limit.");
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(LowestFreeDescriptor() + count);
    if (setrlimit(RLIMIT_NOFILE, &tight) != 0)
        throw std::runtime_error("Could not lower the descriptor limit.");
    auto result = call();
    if (setrlimit(RLIMIT_NOFILE, &saved) != 0)
        throw std::runtime_error("Could not restore the descriptor limit.");
    return result;
}

// A GenTL result with its text, as the tests compare them.
using Result = std::pair<GC_ERROR, std::string>;

inline Result Err(GC_ERROR code, std::string text) { return {code, std::move(text)}; }

// The code and plain text of the exception that `f` throws, or success.
template <class E = QEL::Base::Exception, class F>
Result Failure(F&& f)
{
    try {
        f();
    } catch (const E& e) {
        return {e.GetCode(), e.GetText()};
    }
    return {GC_ERR_SUCCESS, ""};
}

// How many times slower than natively the tests run: LORUN_TEST_TIME_SCALE,
// which scripts/cross.sh sets for emulated runs (1 to 100, else 1). Every
// deadline of the tests is multiplied by it, none by a factor of its own.
inline int TimeScale()
{
    static const int scale = [] {
        const char* text = std::getenv("LORUN_TEST_TIME_SCALE");
        const long value = text ? std::strtol(text, nullptr, 10) : 1;
        return value >= 1 && value <= 100 ? static_cast<int>(value) : 1;
    }();
    return scale;
}

// Waits until `done` holds, looking every few milliseconds; false when it
// still does not after `limit` (times the time scale), which is generous for
// slow and sanitized runs.
inline bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + limit * TimeScale();
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The scheduler's state of a thread of this process ('R' running, 'S' asleep
// in a blocking call, ...), from /proc; 0 when it cannot be read.
inline char ThreadState(long tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    const auto end = stat.rfind(')'); // the thread's name may hold anything
    return end != std::string::npos && end + 2 < stat.size() ? stat[end + 2] : '\0';
}

// A thread's ID as /proc names it, which the thread writes itself; 0 until then.
using ThreadId = std::atomic<long>;
inline void MarkThisThread(ThreadId& id) { id = static_cast<long>(::gettid()); }

// True once the thread has marked itself and sleeps in a blocking call: what
// a test waits for before it does what should wake that call.
inline bool Asleep(const ThreadId& id) { return id != 0 && ThreadState(id) == 'S'; }

// How many threads of this process carry a name that starts with `prefix`. A
// thread that was joined may stay listed until the kernel has reaped it: to
// see one gone, wait for the count to fall.
inline int ThreadsNamed(const std::string& prefix)
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        if (std::getline(comm, name) && name.rfind(prefix, 0) == 0)
            ++count;
    }
    return count;
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}
