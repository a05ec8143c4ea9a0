#include "support/CallGate.h"

#include <algorithm>

namespace QEL { namespace Tools {

void CallGate::Close()
{
    std::unique_lock<std::mutex> lock(mutex);
    closed = true;
    const std::thread::id self = std::this_thread::get_id();
    left.wait(lock, [&] { return std::all_of(inside.begin(), inside.end(), [&](auto id) { return id == self; }); });
}

bool CallGate::IsClosed() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return closed;
}

void CallGate::Leave()
{
    std::lock_guard<std::mutex> lock(mutex);
    inside.erase(std::find(inside.begin(), inside.end(), std::this_thread::get_id()));
    left.notify_all();
}

} }
