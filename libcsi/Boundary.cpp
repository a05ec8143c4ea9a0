#include "libcsi/Boundary.h"

#include <atomic>
#include <cstring>

namespace QEL { namespace LibCSIImpl {

namespace {

std::atomic<const char*> armedThrow{nullptr}; // written by tests only

}

void ThrowInExport(const char* function)
{
    armedThrow.store(function);
}

bool TakeThrowFor(const char* function)
{
    const char* armed = armedThrow.load(std::memory_order_relaxed);
    if (!armed || std::strcmp(armed, function) != 0)
        return false;
    return armedThrow.compare_exchange_strong(armed, nullptr);
}

void LogCaught(const char* function, const char* what) noexcept
{
    try {
        LIBCSI_LOG(TierError, " %s ERROR: %s.\n", function, what);
    } catch (...) {
        // Not even the line could be made: the error code still says it.
    }
}

}} // namespace QEL::LibCSIImpl
