#pragma once

#include "framework/GenericEvent.h"

namespace QEL { namespace Base {

// The entry of a module's event table for one event type; it exists whether
// anyone is registered or not and owns the source.
class EventSlot : public virtual QEL::System::Lockable {
public:
    virtual std::shared_ptr<Event> Register() = 0;
    virtual void Unregister() = 0;
    virtual bool IsRegistered() const = 0;
};

// With auto-flush, data that arrives while nobody is registered is dropped at
// once, so a consumer reads only what came after its GCRegisterEvent.
class GenericEventSlot : public Tools::TrackableObject<EventSlot> {
public:
    GenericEventSlot(EVENT_TYPE type, std::shared_ptr<EventSource> source, bool autoFlush);
    ~GenericEventSlot() override;

    static std::shared_ptr<GenericEventSlot> Create(EVENT_TYPE type, const std::shared_ptr<EventSource>& source,
                                                    bool autoFlush);

    std::shared_ptr<QEL::System::Mutex> GetMutex() const override { return mutex; }
    std::shared_ptr<Event> Register() override;
    void Unregister() override;
    bool IsRegistered() const override;

    const std::shared_ptr<EventSource>& GetSource() const { return source; }

private:
    void ArmAutoFlush();
    void OnDataUnregistered();

    std::shared_ptr<QEL::System::Mutex> mutex;
    bool autoFlush;
    EVENT_TYPE type;
    std::shared_ptr<EventSource> source;
    Tools::Connection flushConnection;
    std::shared_ptr<GenericEvent> event;
};

} }
