#pragma once

#include "framework/EventSource.h"
#include "gencp/Packet.h"
#include "support/BasicLockable.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace QEL { namespace Base { namespace GenCP {

// The transport-free half of the channel on which a camera sends GenCP
// events: it checks each event packet, filters repeats, queues the event for
// the device module and acknowledges it when asked to.
class EventChannel : public virtual System::Lockable {
public:
    class EventQueue;

    static constexpr std::uint16_t EventCommand = 0x0C00;
    static constexpr std::uint16_t EventAcknowledge = 0x0C01;
    static constexpr std::size_t EventHeaderSize = 12; // reserved, event ID, timestamp
    static constexpr std::uint16_t RepeatedFlag = 0x8000;
    static constexpr std::uint16_t AcknowledgeFlag = 0x4000;

    virtual std::size_t GetMaxPayload() const = 0;
    virtual bool HasAcknowledgeSupport() const = 0;
    virtual std::shared_ptr<Packet> CreatePacket(std::size_t payloadSize) = 0;
    virtual void SendPacket(const std::shared_ptr<Packet>& packet) = 0;

    // One received event packet, on the transport's thread. A bad event is
    // logged and dropped; it never stops the channel.
    void ProcessPacket(const std::shared_ptr<Packet>& packet);

    const std::shared_ptr<EventQueue>& GetEventQueue() const { return eventQueue; }

protected:
    // Called by the transport once its maximum payload is known.
    void CreateEventQueue();

private:
    void Check(Packet& packet) const;
    bool IsRepeat(const Packet& packet);
    void Acknowledge(const Packet& packet);

    bool firstEvent = true;
    std::uint16_t lastRequestId = 0;
    std::shared_ptr<EventQueue> eventQueue;
};

// The events of a channel in arrival order, each stored as the byte order of
// its packet (1 byte: 0 little, 1 big endian), its payload size (8 bytes, host
// order) and the event command's payload.
class EventChannel::EventQueue : public Tools::BasicLockable<EventSource> {
public:
    class EventDataParser;
    static constexpr std::size_t PayloadOffset = 9;

    static std::shared_ptr<EventQueue> Create(std::size_t maxPayload);
    explicit EventQueue(std::size_t maxPayload);

    void Push(const std::uint8_t* payload, std::size_t size, std::uint8_t byteOrder);

    std::shared_ptr<Base::EventDataParser> GetEventDataParser() const override;
    DataSignal& GetDataSignal() override { return dataSignal; }
    std::size_t GetCount() const override { return elements.size(); }
    bool IsEmpty() const override { return elements.empty(); }
    void GetData(void* data, std::size_t* size) override;
    void Flush() override { elements.clear(); }

private:
    std::shared_ptr<EventDataParser> parser;
    std::deque<std::vector<std::uint8_t>> elements;
    DataSignal dataSignal;
};

// The GenTL view of one stored event: EVENT_DATA_ID as the event ID in four
// hexadecimal digits, EVENT_DATA_VALUE as the event data, EVENT_DATA_NUMID as
// the event ID.
class EventChannel::EventQueue::EventDataParser : public Base::EventDataParser {
public:
    explicit EventDataParser(std::size_t maxPayload);

    InfoPtr GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const override;
    bool HasMaxSize() const override { return true; }
    std::size_t GetMaxSize() const override { return maxElementSize; }
    bool HasMaxInfoSize() const override { return true; }
    std::size_t GetMaxInfoSize() const override;

private:
    std::size_t maxElementSize;
};

} } }
