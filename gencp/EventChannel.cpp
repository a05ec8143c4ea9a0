#include "gencp/EventChannel.h"

#include "base/BaseException.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <boost/endian/conversion.hpp>
#include <boost/format.hpp>

#include <cstring>
#include <new>

namespace QEL { namespace Base { namespace GenCP {

namespace {

// Each stage of an event logs its failure in its own words and ends the event.
template <class F>
bool Stage(const char* withReason, const char* without, F&& step)
{
    try {
        step();
        return true;
    } catch (const Exception& e) {
        Tools::Logger::Log((boost::format(withReason) % e.GetMessage()).str());
    } catch (const System::Exception& e) {
        Tools::Logger::Log((boost::format(withReason) % e.GetMessage()).str());
    } catch (...) {
        Tools::Logger::Log(without);
    }
    return false;
}

constexpr std::uint8_t HostByteOrder =
    boost::endian::order::native == boost::endian::order::little ? 0 : 1;

}

void EventChannel::CreateEventQueue() { eventQueue = EventQueue::Create(GetMaxPayload()); }

void EventChannel::Check(Packet& packet) const
{
    if (packet.GetCommandId() != EventCommand)
        throw Exception("Invalid command ID found.", GC_ERR_ERROR);
    if (packet.GetPayloadSize() < EventHeaderSize)
        throw Exception("Event payload size too small for event command data.", GC_ERR_ERROR);
    if (packet.GetPayloadSize() > GetMaxPayload())
        throw Exception("Event payload size larger than maximum payload size.", GC_ERR_ERROR);
}

bool EventChannel::IsRepeat(const Packet& packet)
{
    const std::uint16_t flags = packet.GetStatus();
    if (!firstEvent && packet.GetRequestId() == lastRequestId && (flags & RepeatedFlag) != 0)
        return true;
    firstEvent = false;
    lastRequestId = packet.GetRequestId();
    return false;
}

void EventChannel::Acknowledge(const Packet& packet)
{
    if (!HasAcknowledgeSupport())
        throw Exception("No support for acknowledge available.", GC_ERR_ERROR);
    const auto ack = Tools::Allocating("Could not allocate acknowledge packet.", [&] { return CreatePacket(0); });
    if (!ack)
        throw Exception("Could not allocate acknowledge packet.", GC_ERR_ERROR);
    ack->SetFlags(0);
    ack->SetCommandId(EventAcknowledge);
    ack->SetRequestId(packet.GetRequestId());
    SendPacket(ack);
}

void EventChannel::ProcessPacket(const std::shared_ptr<Packet>& packet)
{
    bool repeat = false;
    if (!Stage("Invalid event received. Reason: %1%", "Invalid event received.", [&] {
            if (!packet)
                throw Exception("No packet passed.", GC_ERR_INVALID_PARAMETER);
            Check(*packet);
            repeat = IsRepeat(*packet);
        }))
        return;
    if (!repeat &&
        !Stage("Could not enqueue event. Reason: %1%", "Could not enqueue event.", [&] {
            if (!eventQueue)
                throw Exception("Could not allocate event queue.", GC_ERR_ERROR);
            System::SharedMutexGuard guard(eventQueue->GetMutex());
            const std::uint8_t order = packet->GetByteOrder() == 0 ? 0 : 1;
            eventQueue->Push(packet->GetPayload(), packet->GetPayloadSize(), order);
        }))
        return;
    if (packet->GetStatus() & AcknowledgeFlag)
        Stage("Could not send event acknowledge. Reason: %1%", "Could not send event acknowledge.",
              [&] { Acknowledge(*packet); });
}

// ---- The queue ----

std::shared_ptr<EventChannel::EventQueue> EventChannel::EventQueue::Create(std::size_t maxPayload)
{
    return Tools::Allocating("Could not allocate event queue.",
                             [&] { return std::make_shared<EventQueue>(maxPayload); });
}

EventChannel::EventQueue::EventQueue(std::size_t maxPayload)
{
    Tools::Allocating("Could not allocate event data parser.",
                      [&] { parser = std::make_shared<EventDataParser>(maxPayload); });
}

std::shared_ptr<Base::EventDataParser> EventChannel::EventQueue::GetEventDataParser() const { return parser; }

void EventChannel::EventQueue::Push(const std::uint8_t* payload, std::size_t size, std::uint8_t byteOrder)
{
    if (!payload)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    if (size == 0)
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    std::vector<std::uint8_t> element;
    Tools::Allocating("Could not allocate event data.", [&] { element.resize(PayloadOffset + size); });
    element[0] = byteOrder;
    const std::uint64_t stored = size;
    std::memcpy(&element[1], &stored, sizeof stored);
    std::memcpy(&element[PayloadOffset], payload, size);
    elements.push_back(std::move(element));
    try {
        dataSignal();
    } catch (...) {
    }
}

void EventChannel::EventQueue::GetData(void* data, std::size_t* size)
{
    if (elements.empty())
        throw Exception("No data in the queue.", GC_ERR_ERROR);
    if (!size)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
    const std::vector<std::uint8_t>& front = elements.front();
    if (!data) {
        *size = front.size();
        return;
    }
    if (*size < front.size())
        throw Exception("Data size too small.", GC_ERR_BUFFER_TOO_SMALL);
    std::memcpy(data, front.data(), front.size());
    *size = front.size();
    elements.pop_front();
}

// ---- The parser ----

EventChannel::EventQueue::EventDataParser::EventDataParser(std::size_t maxPayload)
    : maxElementSize(maxPayload + PayloadOffset)
{
    if (maxPayload < EventHeaderSize)
        throw Exception("Size too small for event command data.", GC_ERR_INVALID_PARAMETER);
}

std::size_t EventChannel::EventQueue::EventDataParser::GetMaxInfoSize() const
{
    return std::max<std::size_t>({5, 8, maxElementSize - PayloadOffset});
}

InfoPtr EventChannel::EventQueue::EventDataParser::GetDataInfo(const void* buffer, std::size_t size,
                                                               EVENT_DATA_INFO_CMD cmd) const
{
    if (!buffer)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    if (size < PayloadOffset + EventHeaderSize)
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    const auto* element = static_cast<const std::uint8_t*>(buffer);
    std::uint64_t payloadSize = 0;
    std::memcpy(&payloadSize, element + 1, sizeof payloadSize);
    if (payloadSize < EventHeaderSize || payloadSize > size - PayloadOffset)
        throw Exception("Event data contains invalid payload size.", GC_ERR_ERROR);
    if (element[0] > 1)
        throw Exception("Event data contains invalid endianess.", GC_ERR_ERROR);
    const std::uint8_t* payload = element + PayloadOffset;
    std::uint16_t eventId = 0;
    std::memcpy(&eventId, payload + 2, sizeof eventId);
    if (element[0] != HostByteOrder)
        eventId = boost::endian::endian_reverse(eventId);
    return Tools::Allocating("Could not allocate info.", [&]() -> InfoPtr {
        switch (cmd) {
        case EVENT_DATA_ID:
            return std::make_shared<StringInfo>((boost::format("%1$04X") % eventId).str());
        case EVENT_DATA_VALUE:
            return std::make_shared<BufferInfo>(payload + EventHeaderSize, payloadSize - EventHeaderSize);
        case EVENT_DATA_NUMID:
            return std::make_shared<UInt64Info>(eventId);
        default:
            throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
}

} } }
