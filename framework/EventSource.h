#pragma once

#include "framework/EventDataParser.h"
#include "support/Lockable.h"
#include "support/Signal.h"

#include <cstddef>
#include <memory>

namespace QEL { namespace Base {

// What an event reads from. One mutex, the source's, rules the source, its
// event slot, its event and every waiter of it.
class EventSource : public virtual QEL::System::Lockable {
public:
    using DataSignal = Tools::Signal<void()>;

    virtual std::shared_ptr<EventDataParser> GetEventDataParser() const = 0;
    virtual DataSignal& GetDataSignal() = 0;
    virtual std::size_t GetCount() const = 0;
    virtual bool IsEmpty() const = 0;
    // Copies out and removes the oldest item; a null `data` asks for the size
    // and consumes the item as well.
    virtual void GetData(void* data, std::size_t* size) = 0;
    virtual void Flush() = 0;
};

} }
