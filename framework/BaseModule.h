#pragma once

#include "base/GenTL.h"
#include "framework/Handleable.h"
#include "framework/BaseEvent.h"

#include <memory>
#include <string>

namespace QEL { namespace Base {

// A GenTL module: it has events and a type name.
class Module : public virtual Handleable {
public:
    virtual std::shared_ptr<Event> RegisterEvent(EVENT_TYPE eventType) = 0;
    virtual void UnregisterEvent(EVENT_TYPE eventType) = 0;
    virtual std::string GetTypeName() const = 0;
};

} }
