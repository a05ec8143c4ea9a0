#pragma once

#include "support/Mutex.h"
#include "base/Object.h"

#include <memory>

namespace QEL { namespace System {

// Something that has a mutex of its own.
class Lockable : public virtual Object {
public:
    virtual std::shared_ptr<Mutex> GetMutex() const = 0;
};

} }
