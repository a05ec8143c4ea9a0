#pragma once

#include "support/Object.h"

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
class ErrorHandler : public virtual System::Object {
public:
    ErrorHandler() : serial(NextSerial()) {}
    ~ErrorHandler() override { Slots().erase(serial); }
    ErrorHandler(const ErrorHandler&) = delete;
    ErrorHandler& operator=(const ErrorHandler&) = delete;

    void SetError(const E& error) { Slots()[serial].reset(new E(error.GetText(), error.GetCode())); }

    const E* GetError() const
    {
        auto& slots = Slots();
        auto it = slots.find(serial);
        return it == slots.end() ? nullptr : it->second.get();
    }

private:
    static std::uint64_t NextSerial()
    {
        static std::atomic<std::uint64_t> counter{0};
        return ++counter;
    }

    static std::map<std::uint64_t, std::unique_ptr<E>>& Slots()
    {
        thread_local std::map<std::uint64_t, std::unique_ptr<E>> slots;
        return slots;
    }

    const std::uint64_t serial;
};

} }
