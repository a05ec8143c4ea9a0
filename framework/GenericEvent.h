#pragma once

#include "framework/BaseEvent.h"
#include "framework/EventSource.h"
#include "support/Condition.h"
#include "support/TrackableObject.h"

#include <deque>
#include <list>
#include <memory>
#include <string>

namespace QEL { namespace Base {

// One blocked EventGetData. The producer's thread copies the data straight
// into the consumer's memory and wakes it.
class GenericWaitSlot : public virtual QEL::System::Object {
public:
    explicit GenericWaitSlot(std::shared_ptr<QEL::System::Mutex> mutex) : mutex(std::move(mutex)) {}

    GC_ERROR Wait(void* data, std::size_t* size, std::uint64_t timeout);
    void Deliver(EventSource* source);
    void Kill();

private:
    enum State { Idle = 0, Waiting = 1, Finished = 2 };

    std::shared_ptr<QEL::System::Mutex> mutex;
    QEL::System::Condition condition;
    State state = Idle;
    void* data = nullptr;
    std::size_t* size = nullptr;
    GC_ERROR errorCode = GC_ERR_SUCCESS;
    std::string errorText;
};

// The event between GCRegisterEvent and GCUnregisterEvent; what an event
// handle names. Waiters are served in the order they came.
class GenericEvent : public Tools::TrackableObject<Event> {
public:
    static constexpr std::uint64_t Infinite = GENTL_INFINITE;

    GenericEvent(EVENT_TYPE type, std::shared_ptr<EventSource> source);
    ~GenericEvent() override;

    // Makes the event and connects it to its source's data signal.
    static std::shared_ptr<GenericEvent> Create(EVENT_TYPE type, const std::shared_ptr<EventSource>& source);

    std::shared_ptr<QEL::System::Mutex> GetMutex() const override { return mutex; }
    std::int32_t GetHandleType() const override { return 7; }
    bool IsRegistered() const override;
    void Flush() override;
    void Kill() override;
    GC_ERROR GetData(void* data, std::size_t* size, std::uint64_t timeout) override;
    InfoPtr GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const override;
    std::size_t GetDataInfoSize(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd,
                                INFO_DATATYPE* dataType) const override;
    InfoPtr GetInfo(EVENT_INFO_CMD cmd) const override;
    std::size_t GetInfoSize(EVENT_INFO_CMD cmd, INFO_DATATYPE* dataType) const override;

    void Unregister();
    // Number of threads blocked in GetData right now.
    std::size_t GetWaiterCount() const;

private:
    void CheckRegistered() const;
    void OnData();
    void Release(const std::shared_ptr<GenericWaitSlot>& slot);

    std::shared_ptr<QEL::System::Mutex> mutex;
    bool registered = true;
    EVENT_TYPE type;
    std::shared_ptr<EventDataParser> parser;
    std::shared_ptr<EventSource> source;
    std::list<std::shared_ptr<GenericWaitSlot>> waiting;
    std::deque<std::shared_ptr<GenericWaitSlot>> idle;
    Tools::Connection dataConnection;
    std::uint32_t killCount = 0;
};

} }
