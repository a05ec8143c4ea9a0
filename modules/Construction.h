#pragma once

#include "base/BaseException.h"

#include <memory>
#include <new>
#include <utility>

namespace QEL { namespace CSI {

// A module's part made with make_shared; a failed allocation becomes the
// module's own text, or a generic one.
template <class R, class... Args>
std::shared_ptr<R> Make(const char* failure, Args&&... args)
{
    try {
        return std::make_shared<R>(std::forward<Args>(args)...);
    } catch (const std::bad_alloc&) {
        throw Base::Exception(failure ? failure : "Could not allocate register.", GC_ERR_ERROR);
    }
}

// One step of closing: whatever it throws, the next step runs.
template <class Step>
void Swallow(Step&& step)
{
    try {
        step();
    } catch (...) {
    }
}

} }
