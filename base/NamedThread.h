#pragma once

// A thread that carries its name from its first moment, so that `top -H`,
// `ps -L` and a debugger show who it is. The kernel keeps 15 characters of a
// name and refuses longer ones; the size is checked here, at compile time.
// libcsi, which includes nothing of ours, has the same in libcsi/NamedThread.h.
#include <pthread.h>

#include <cstddef>
#include <thread>
#include <utility>

namespace QEL { namespace Base {

template <std::size_t N, class... Args> std::thread StartNamedThread(const char (&name)[N], Args&&... args)
{
    static_assert(N <= 16, "a thread's name has at most 15 characters");
    std::thread thread(std::forward<Args>(args)...);
    ::pthread_setname_np(thread.native_handle(), name);
    return thread;
}

}} // namespace QEL::Base
