#pragma once

#include "base/BaseException.h"
#include "framework/BasicEventQueue.h"
#include "framework/GenericEventSlot.h"
#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <map>
#include <memory>
#include <new>

namespace QEL { namespace Base {

// The event table and the initialised flag of every module. Events are added
// while the module is being created, before it is initialised.
template <class L>
class BasicModule : public L {
public:
    using GenericEvent = Base::GenericEvent;
    using EventSlot = Base::EventSlot;
    using GenericEventSlot = Base::GenericEventSlot;
    using GenericWaitSlot = Base::GenericWaitSlot;

    using L::L;

    std::shared_ptr<Event> RegisterEvent(EVENT_TYPE eventType) override
    {
        auto slot = FindSlot(eventType);
        QEL::System::SharedMutexGuard guard(slot->GetMutex());
        return slot->Register();
    }

    void UnregisterEvent(EVENT_TYPE eventType) override
    {
        auto slot = FindSlot(eventType);
        QEL::System::SharedMutexGuard guard(slot->GetMutex());
        if (!slot->IsRegistered())
            throw Exception("Event is not registered.", GC_ERR_NOT_INITIALIZED);
        slot->Unregister();
    }

protected:
    template <class T>
    std::shared_ptr<BasicEventQueue<T>> AddEvent(EVENT_TYPE eventType, bool autoFlush)
    {
        CheckNewEvent(eventType);
        auto queue = Tools::MakeShared<BasicEventQueue<T>>("Could not allocate event queue.");
        AddSlot(eventType, queue, autoFlush);
        return queue;
    }

    void AddEvent(EVENT_TYPE eventType, const std::shared_ptr<EventSource>& source, bool autoFlush)
    {
        CheckNewEvent(eventType);
        AddSlot(eventType, source, autoFlush);
    }

    void InitializeModule()
    {
        if (initialized)
            throw Exception("Module is already initialized.", GC_ERR_ERROR);
        initialized = true;
    }

    void DeinitializeModule()
    {
        if (!initialized)
            throw Exception("Module is not initialized.", GC_ERR_ERROR);
        initialized = false;
    }

    // Unregistering wakes every waiter of the module's events with an abort.
    void ClearEvents()
    {
        if (initialized)
            throw Exception("Module is already initialized.", GC_ERR_ERROR);
        for (auto& entry : events) {
            if (!entry.second)
                continue;
            QEL::System::SharedMutexGuard guard(entry.second->GetMutex());
            if (entry.second->IsRegistered())
                entry.second->Unregister();
        }
        events.clear();
    }

    bool IsModuleInitialized() const { return initialized; }

private:
    void CheckNewEvent(EVENT_TYPE eventType) const
    {
        if (initialized)
            throw Exception("Module is already initialized.", GC_ERR_ERROR);
        if (events.count(eventType) != 0)
            throw Exception("An event with the given ID already exists.", GC_ERR_INVALID_PARAMETER);
    }

    void AddSlot(EVENT_TYPE eventType, const std::shared_ptr<EventSource>& source, bool autoFlush)
    {
        auto slot = Tools::Allocating("Could not allocate event.",
                                      [&] { return GenericEventSlot::Create(eventType, source, autoFlush); });
        events[eventType] = slot;
    }

    std::shared_ptr<EventSlot> FindSlot(EVENT_TYPE eventType) const
    {
        if (!initialized)
            throw Exception("Module is not available.", GC_ERR_INVALID_HANDLE);
        auto it = events.find(eventType);
        if (it == events.end())
            throw Exception("An event with the given ID is not implemented.", GC_ERR_NOT_IMPLEMENTED);
        if (!it->second)
            throw Exception("Could not access event.", GC_ERR_ERROR);
        return it->second;
    }

    bool initialized = false;
    std::map<EVENT_TYPE, std::shared_ptr<EventSlot>> events;
};

} }
