#pragma once

#include "base/Exception.h"
#include "support/Lockable.h"

#include <memory>
#include <new>

namespace QEL { namespace Tools {

// Owns the mutex of an object whose role R derives from System::Lockable.
template <class R>
class BasicLockable : public R {
public:
    template <class... Args>
    explicit BasicLockable(Args&&... args) : R(std::forward<Args>(args)...), mutex(CreateMutex()) {}

    std::shared_ptr<System::Mutex> GetMutex() const override { return mutex; }

private:
    static std::shared_ptr<System::Mutex> CreateMutex()
    {
        try {
            return std::make_shared<System::Mutex>();
        } catch (const std::bad_alloc&) {
            throw System::Exception("Could not allocate mutex.");
        }
    }

    std::shared_ptr<System::Mutex> mutex;
};

} }
