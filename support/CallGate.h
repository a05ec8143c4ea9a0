#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace QEL { namespace Tools {

// Lets calls from other threads (a library's callbacks) reach an object until
// the object closes the gate. Closing waits for the calls already inside, so
// that the object can go away afterwards; the callers never own the object,
// so it is never destroyed on their threads.
class CallGate {
public:
    // Runs `call` unless the gate is closed; true when it ran.
    template <class Call>
    bool Run(Call&& call)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (closed)
                return false;
            inside.push_back(std::this_thread::get_id());
        }
        struct Leave {
            CallGate& gate;
            ~Leave() { gate.Leave(); }
        } leave{*this};
        call();
        return true;
    }

    // No call gets in from now on; returns once the calls inside have left,
    // apart from one of the calling thread itself.
    void Close();
    bool IsClosed() const;

private:
    void Leave();

    mutable std::mutex mutex;
    std::condition_variable left;
    std::vector<std::thread::id> inside;
    bool closed = false;
};

} }
