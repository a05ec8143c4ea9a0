#include "transport/Transfer.h"

#include "base/BaseException.h"
#include "support/MutexGuard.h"
#include "transport/EndpointHandler.h"
#include "support/Allocation.h"

#include <new>

namespace QEL { namespace TransportLayer {

using System::SharedMutexGuard;

Transfer::Transfer(const std::shared_ptr<LibCSI::EndpointHandler>& handler, void* buffer, std::size_t size)
{
    if (!handler)
        throw Base::Exception("No endpoint handler passed.", GC_ERR_INVALID_PARAMETER);
    state = Tools::MakeShared<State>("Could not allocate transfer.");
    std::shared_ptr<State> shared = state;
    {
        SharedMutexGuard guard(shared->mutex);
        shared->complete = false;
    }
    try {
        handler->Submit(buffer, size, [shared](TransferResult result, std::int32_t transferred) {
            SharedMutexGuard done(shared->mutex);
            shared->result = result;
            shared->transferred = transferred;
            shared->complete = true;
            shared->condition.Broadcast();
        });
    } catch (...) {
        SharedMutexGuard guard(shared->mutex);
        shared->complete = true;
        throw;
    }
}

std::shared_ptr<System::Mutex> Transfer::GetMutex() const { return state->mutex; }

bool Transfer::IsComplete() const
{
    SharedMutexGuard guard(state->mutex);
    return state->complete;
}

void Transfer::Wait()
{
    SharedMutexGuard guard(state->mutex);
    while (!state->complete)
        state->condition.Wait(*state->mutex);
}

bool Transfer::WaitUntil(System::TimePoint deadline)
{
    SharedMutexGuard guard(state->mutex);
    while (!state->complete)
        if (!state->condition.TimedWait(*state->mutex, deadline))
            return state->complete;
    return true;
}

TransferResult Transfer::GetResult() const
{
    SharedMutexGuard guard(state->mutex);
    if (!state->complete)
        throw Base::Exception("The transfer is not complete yet.", GC_ERR_ERROR);
    return state->result;
}

std::int32_t Transfer::GetTransferred() const
{
    SharedMutexGuard guard(state->mutex);
    if (!state->complete)
        throw Base::Exception("The transfer is not complete yet.", GC_ERR_ERROR);
    return state->transferred;
}

} }
