#include "framework/GenericEventSlot.h"

#include "base/BaseException.h"
#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <new>

namespace QEL { namespace Base {

GenericEventSlot::GenericEventSlot(EVENT_TYPE eventType, std::shared_ptr<EventSource> eventSource, bool flush)
    : autoFlush(flush), type(eventType), source(std::move(eventSource))
{
    if (!source)
        throw Exception("No generic event queue passed.", GC_ERR_INVALID_PARAMETER);
    mutex = source->GetMutex();
    if (!mutex)
        throw Exception("Could not retrieve mutex from generic event queue.", GC_ERR_ERROR);
}

GenericEventSlot::~GenericEventSlot()
{
    flushConnection.Disconnect();
    try {
        if (event)
            event->Unregister();
    } catch (...) {
    }
}

std::shared_ptr<GenericEventSlot> GenericEventSlot::Create(EVENT_TYPE type, const std::shared_ptr<EventSource>& source,
                                                           bool autoFlush)
{
    auto slot = Tools::MakeShared<GenericEventSlot>("Could not allocate generic event slot.", type, source, autoFlush);
    if (autoFlush) {
        QEL::System::SharedMutexGuard guard(slot->mutex);
        slot->ArmAutoFlush();
    }
    return slot;
}

void GenericEventSlot::ArmAutoFlush()
{
    if (!source->IsEmpty())
        source->Flush();
    GenericEventSlot* raw = this;
    flushConnection = source->GetDataSignal().Connect([raw] { raw->OnDataUnregistered(); }, GetShared<GenericEventSlot>());
}

void GenericEventSlot::OnDataUnregistered()
{
    QEL::System::SharedMutexGuard guard(mutex);
    if (autoFlush && !event && !source->IsEmpty()) {
        Tools::ConnectionBlock block(flushConnection);
        source->Flush();
    }
}

std::shared_ptr<Event> GenericEventSlot::Register()
{
    QEL::System::SharedMutexGuard guard(mutex);
    if (event)
        throw Exception("Event is already registered.", GC_ERR_RESOURCE_IN_USE);
    event = GenericEvent::Create(type, source);
    if (!event)
        throw Exception("Could not allocate event.", GC_ERR_ERROR);
    if (autoFlush)
        flushConnection.Disconnect();
    return event;
}

void GenericEventSlot::Unregister()
{
    QEL::System::SharedMutexGuard guard(mutex);
    if (!event)
        throw Exception("Event is not registered.", GC_ERR_ERROR);
    event->Unregister();
    event.reset();
    if (autoFlush)
        ArmAutoFlush();
}

bool GenericEventSlot::IsRegistered() const
{
    QEL::System::SharedMutexGuard guard(mutex);
    return static_cast<bool>(event);
}

} }
