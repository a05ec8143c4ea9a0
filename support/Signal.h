#pragma once

#include <boost/signals2/signal.hpp>

#include <memory>
#include <utility>

namespace QEL { namespace Tools {

// Synchronous signal: slots run on the firing thread. A slot connected with a
// tracked object is skipped once that object has died.
template <class Signature>
class BasicSignal {
public:
    using Connection = boost::signals2::connection;
    using Slot = typename boost::signals2::signal<Signature>::slot_type;

    template <class Function>
    Connection Connect(Function&& function)
    {
        return signal.connect(std::forward<Function>(function));
    }

    template <class Function, class Tracked>
    Connection Connect(Function&& function, const std::shared_ptr<Tracked>& tracked)
    {
        return signal.connect(Slot(std::forward<Function>(function)).track_foreign(tracked));
    }

    template <class... Args>
    void operator()(Args&&... args) const
    {
        signal(std::forward<Args>(args)...);
    }

    std::size_t GetNumSlots() const { return signal.num_slots(); }
    void DisconnectAll() { signal.disconnect_all_slots(); }

private:
    mutable boost::signals2::signal<Signature> signal;
};

template <class Signature>
class Signal : public BasicSignal<Signature> {};

} }
