#include "framework/GenericEvent.h"

#include "base/BaseException.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <algorithm>
#include <new>

namespace QEL { namespace Base {

namespace {

std::shared_ptr<QEL::System::Mutex> MutexOf(const std::shared_ptr<EventSource>& source)
{
    if (!source)
        throw Exception("No generic event queue passed.", GC_ERR_INVALID_PARAMETER);
    auto mutex = source->GetMutex();
    if (!mutex)
        throw Exception("Could not retrieve mutex from generic event queue.", GC_ERR_ERROR);
    return mutex;
}

}

// Wait slots.

GC_ERROR GenericWaitSlot::Wait(void* target, std::size_t* targetSize, std::uint64_t timeout)
{
    QEL::System::SharedMutexGuard guard(mutex);
    if (target && !targetSize)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
    if (state != Idle)
        throw Exception("Wait slot not idle.", GC_ERR_ERROR);
    data = target;
    size = targetSize;
    state = Waiting;
    // Beyond this many milliseconds (about 34 years) a deadline would overflow
    // the clock; such a wait, GENTL_INFINITE among them, lasts as long as an infinite one.
    constexpr std::uint64_t longestTimedWait = std::uint64_t{1} << 40;
    static_assert(GenericEvent::Infinite >= longestTimedWait, "the infinite wait is among the long ones");
    if (timeout >= longestTimedWait) {
        while (state == Waiting)
            condition.Wait(*mutex);
    } else {
        const auto deadline = QEL::System::Clock::now() + std::chrono::milliseconds(timeout);
        while (state == Waiting)
            if (!condition.TimedWait(*mutex, deadline))
                break;
    }
    const State seen = state;
    state = Idle;
    data = nullptr;
    size = nullptr;
    if (seen == Waiting) {
        Tools::Logger::Log("Timeout while getting data.");
        return GC_ERR_TIMEOUT;
    }
    if (seen != Finished)
        throw Exception("Unexpected result while getting data.", GC_ERR_ERROR);
    if (errorCode != GC_ERR_SUCCESS) {
        GC_ERROR code = errorCode;
        std::string text;
        text.swap(errorText);
        errorCode = GC_ERR_SUCCESS;
        throw Exception(text, code);
    }
    return GC_ERR_SUCCESS;
}

void GenericWaitSlot::Deliver(EventSource* source)
{
    if (!source)
        throw Exception("No event source passed.", GC_ERR_INVALID_PARAMETER);
    QEL::System::SharedMutexGuard guard(mutex);
    if (state != Waiting)
        throw Exception("Wait slot not waiting.", GC_ERR_ERROR);
    errorCode = GC_ERR_SUCCESS;
    try {
        source->GetData(data, size);
    } catch (const Exception& e) {
        errorCode = e.GetCode();
        errorText = e.GetText();
    } catch (const QEL::System::Exception& e) {
        errorCode = GC_ERR_ERROR;
        errorText = e.GetMessage();
    } catch (...) {
        errorCode = GC_ERR_ERROR;
        errorText = "Unknown error while copying data.";
    }
    state = Finished;
    condition.Signal();
}

void GenericWaitSlot::Kill()
{
    QEL::System::SharedMutexGuard guard(mutex);
    if (state != Waiting)
        throw Exception("Wait slot not waiting.", GC_ERR_ERROR);
    errorText = "Data retrieval has been killed.";
    errorCode = GC_ERR_ABORT;
    state = Finished;
    condition.Signal();
}

// Events.

GenericEvent::GenericEvent(EVENT_TYPE eventType, std::shared_ptr<EventSource> eventSource)
    : mutex(MutexOf(eventSource)), type(eventType), parser(eventSource->GetEventDataParser()),
      source(std::move(eventSource))
{
    if (!parser)
        throw Exception("Could not retrieve event data parser.", GC_ERR_ERROR);
}

GenericEvent::~GenericEvent()
{
    try {
        if (registered)
            Unregister();
    } catch (...) {
    }
}

std::shared_ptr<GenericEvent> GenericEvent::Create(EVENT_TYPE type, const std::shared_ptr<EventSource>& source)
{
    auto event = Tools::MakeShared<GenericEvent>("Could not allocate generic event.", type, source);
    QEL::System::SharedMutexGuard guard(event->mutex);
    GenericEvent* raw = event.get();
    event->dataConnection = source->GetDataSignal().Connect([raw] { raw->OnData(); }, event);
    return event;
}

bool GenericEvent::IsRegistered() const
{
    QEL::System::SharedMutexGuard guard(mutex);
    return registered;
}

std::size_t GenericEvent::GetWaiterCount() const
{
    QEL::System::SharedMutexGuard guard(mutex);
    return waiting.size();
}

void GenericEvent::CheckRegistered() const
{
    if (!registered)
        throw Exception("Event is not registered.", GC_ERR_INVALID_HANDLE);
}

GC_ERROR GenericEvent::GetData(void* data, std::size_t* size, std::uint64_t timeout)
{
    QEL::System::SharedMutexGuard guard(mutex);
    CheckRegistered();
    if (data && !size)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
    if (killCount > 0) {
        --killCount;
        throw Exception("Data retrieval has been killed.", GC_ERR_ABORT);
    }
    if (!source->IsEmpty()) {
        Tools::ConnectionBlock block(dataConnection);
        source->GetData(data, size);
        return GC_ERR_SUCCESS;
    }
    if (timeout == 0)
        throw Exception("Timeout while getting data.", GC_ERR_TIMEOUT);

    std::shared_ptr<GenericWaitSlot> slot;
    while (!slot && !idle.empty()) {
        slot = idle.front();
        idle.pop_front();
    }
    if (!slot)
        slot = Tools::MakeShared<GenericWaitSlot>("Could not allocate wait slot.", mutex);
    waiting.push_back(slot);
    GC_ERROR result;
    try {
        result = slot->Wait(data, size, timeout);
    } catch (...) {
        Release(slot);
        throw;
    }
    Release(slot);
    return result;
}

// A slot that the producer or a kill already took off `waiting` is simply not found there.
void GenericEvent::Release(const std::shared_ptr<GenericWaitSlot>& slot)
{
    waiting.remove(slot);
    if (registered)
        idle.push_back(slot);
}

void GenericEvent::OnData()
{
    QEL::System::SharedMutexGuard guard(mutex);
    if (!registered)
        return;
    Tools::ConnectionBlock block(dataConnection);
    while (!waiting.empty() && !source->IsEmpty()) {
        auto slot = waiting.front();
        waiting.pop_front();
        if (slot)
            slot->Deliver(source.get());
    }
}

void GenericEvent::Kill()
{
    QEL::System::SharedMutexGuard guard(mutex);
    CheckRegistered();
    while (!waiting.empty()) {
        auto slot = waiting.front();
        waiting.pop_front();
        if (slot) {
            slot->Kill();
            return;
        }
    }
    ++killCount;
}

void GenericEvent::Flush()
{
    QEL::System::SharedMutexGuard guard(mutex);
    CheckRegistered();
    if (!source->IsEmpty()) {
        Tools::ConnectionBlock block(dataConnection);
        source->Flush();
    }
}

void GenericEvent::Unregister()
{
    QEL::System::SharedMutexGuard guard(mutex);
    CheckRegistered();
    dataConnection.Disconnect();
    for (auto& slot : waiting)
        if (slot)
            slot->Kill();
    waiting.clear();
    idle.clear();
    registered = false;
}

InfoPtr GenericEvent::GetInfo(EVENT_INFO_CMD cmd) const
{
    QEL::System::SharedMutexGuard guard(mutex);
    CheckRegistered();
    return Tools::Allocating("Could not allocate info.", [&]() -> InfoPtr {
        switch (cmd) {
        case EVENT_EVENT_TYPE:
            return std::make_shared<Int32Info>(type);
        case EVENT_NUM_IN_QUEUE:
            return std::make_shared<SizeTInfo>(source->GetCount());
        case EVENT_SIZE_MAX:
            if (!parser->HasMaxSize())
                throw Exception("Maximum size not available.", GC_ERR_NOT_AVAILABLE);
            return std::make_shared<SizeTInfo>(parser->GetMaxSize());
        case EVENT_INFO_DATA_SIZE_MAX:
            if (!parser->HasMaxInfoSize())
                throw Exception("Maximum info size not available.", GC_ERR_NOT_AVAILABLE);
            return std::make_shared<SizeTInfo>(parser->GetMaxInfoSize());
        default:
            throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
}

std::size_t GenericEvent::GetInfoSize(EVENT_INFO_CMD cmd, INFO_DATATYPE* dataType) const
{
    auto info = GetInfo(cmd);
    if (!info)
        throw Exception("Could not get event info.", GC_ERR_ERROR);
    if (dataType)
        *dataType = info->GetType();
    return info->GetSize();
}

InfoPtr GenericEvent::GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const
{
    QEL::System::SharedMutexGuard guard(mutex);
    CheckRegistered();
    if (!buffer)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    return parser->GetDataInfo(buffer, size, cmd);
}

std::size_t GenericEvent::GetDataInfoSize(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd,
                                          INFO_DATATYPE* dataType) const
{
    auto info = GetDataInfo(buffer, size, cmd);
    if (!info)
        throw Exception("Could not get event data info.", GC_ERR_ERROR);
    if (dataType)
        *dataType = info->GetType();
    return info->GetSize();
}

} }
