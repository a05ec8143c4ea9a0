#pragma once

#include "base/Object.h"
#include "base/StaticTls.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

namespace QEL { namespace Tools {

// The last error of each thread. A stored error stays until it is overwritten
// or the handler is replaced; success does not clear it. Slots are keyed by a
// serial number that is never reused, so a new handler never sees an error
// that a thread stored in an earlier one.
template <class E>
class ErrorHandler : public virtual QEL::System::Object {
public:
    ErrorHandler() : serial(NextSerial()) {}
    ~ErrorHandler() override
    {
        if (Map* slots = Slots(false))
            slots->erase(serial);
    }
    ErrorHandler(const ErrorHandler&) = delete;
    ErrorHandler& operator=(const ErrorHandler&) = delete;

    void SetError(const E& error)
    {
        if (Map* slots = Slots(true))
            (*slots)[serial].reset(new E(error.GetText(), error.GetCode()));
    }

    const E* GetError() const
    {
        Map* slots = Slots(false);
        if (!slots)
            return nullptr;
        auto it = slots->find(serial);
        return it == slots->end() ? nullptr : it->second.get();
    }

private:
    static std::uint64_t NextSerial()
    {
        static std::atomic<std::uint64_t> counter{0};
        return ++counter;
    }

    using Map = std::map<std::uint64_t, std::unique_ptr<E>>;

    // The map pointer is trivially destructible, so it stays readable (as null)
    // after the thread's cleanup ran: handlers torn down at process exit, after
    // the main thread's thread-local objects, find no map instead of a dead one.
    struct Cleanup {
        ~Cleanup()
        {
            delete slots;
            slots = nullptr;
        }
    };

    static Map* Slots(bool create)
    {
        LORUN_STATIC_TLS thread_local Cleanup cleanup;
        if (!slots && create) {
            (void)&cleanup; // registers the cleanup with this thread
            slots = new Map;
        }
        return slots;
    }

    LORUN_STATIC_TLS static thread_local Map* slots;

    const std::uint64_t serial;
};

template <class E>
LORUN_STATIC_TLS thread_local typename ErrorHandler<E>::Map* ErrorHandler<E>::slots = nullptr;

} }
