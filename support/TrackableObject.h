#pragma once

#include <memory>

namespace QEL { namespace Tools {

// Gives T the shared-from-this facility, so the object can hand out shared
// pointers to itself and signal connections can track its lifetime.
template <class T>
class TrackableObject : public T, public std::enable_shared_from_this<TrackableObject<T>> {
public:
    using T::T;

    template <class U = TrackableObject<T>>
    std::shared_ptr<U> GetShared()
    {
        return std::dynamic_pointer_cast<U>(this->shared_from_this());
    }

    std::weak_ptr<TrackableObject<T>> GetWeak() { return this->weak_from_this(); }
};

} }
