#pragma once

// Allocation failures as this system's own "Could not allocate ..." errors
// (GC_ERR_ERROR), written once so that no layer needs a bad_alloc block.
#include "base/BaseException.h"

#include <memory>
#include <new>
#include <utility>

namespace QEL { namespace Tools {

// Runs `step`; a failed allocation inside it becomes `failure`.
template <class Step> decltype(auto) Allocating(const char* failure, Step&& step)
{
    try {
        return std::forward<Step>(step)();
    } catch (const std::bad_alloc&) {
        throw Base::Exception(failure, GC_ERR_ERROR);
    }
}

// make_shared, a failed allocation becoming `failure`.
template <class R, class... Args> std::shared_ptr<R> MakeShared(const char* failure, Args&&... args)
{
    return Allocating(failure, [&] { return std::make_shared<R>(std::forward<Args>(args)...); });
}

// One step of closing: whatever it throws, the next step runs.
template <class Step> void Swallow(Step&& step)
{
    try {
        step();
    } catch (...) {
    }
}

}} // namespace QEL::Tools
