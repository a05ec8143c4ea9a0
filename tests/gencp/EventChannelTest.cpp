// The GenCP half of the event channel: checks, the repeat filter,
// acknowledges, the queue of events and their GenTL view.
#include "base/BaseException.h"
#include "gencp/CCIPacket.h"
#include "gencp/EventChannel.h"
#include "support/MutexGuard.h"
#include "tests/RecordedLog.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace QEL;
using namespace QEL::Base::GenCP;

namespace {

class TestEventChannel : public Tools::BasicLockable<EventChannel> {
public:
    explicit TestEventChannel(std::size_t maxPayload = 64, bool acknowledges = true)
        : maxPayload(maxPayload), acknowledges(acknowledges)
    {
        CreateEventQueue();
    }
    std::size_t GetMaxPayload() const override { return maxPayload; }
    bool HasAcknowledgeSupport() const override { return acknowledges; }
    std::shared_ptr<Packet> CreatePacket(std::size_t payloadSize) override
    {
        return std::make_shared<CCIPacket>(payloadSize);
    }
    void SendPacket(const std::shared_ptr<Packet>& packet) override { sent.push_back(packet); }

    std::size_t maxPayload;
    bool acknowledges;
    std::vector<std::shared_ptr<Packet>> sent;
};

// A packet that says it is big endian.
class BigEndianPacket : public CCIPacket {
public:
    using CCIPacket::CCIPacket;
    std::int32_t GetByteOrder() const override { return 1; }
};

template <class P = CCIPacket>
std::shared_ptr<P> Event(std::uint16_t requestId, std::uint16_t flags, std::uint16_t eventId,
                         const std::string& data = "", std::uint16_t command = EventChannel::EventCommand)
{
    auto packet = std::make_shared<P>(12 + data.size());
    packet->SetFlags(flags);
    packet->SetCommandId(command);
    packet->SetRequestId(requestId);
    std::uint8_t* payload = packet->GetPayload();
    std::memcpy(payload + 2, &eventId, 2);
    const std::uint64_t timestamp = 0x1122334455667788ull;
    std::memcpy(payload + 4, &timestamp, 8);
    std::memcpy(payload + 12, data.data(), data.size());
    return packet;
}

std::vector<std::uint8_t> Take(EventChannel::EventQueue& queue)
{
    std::size_t size = 0;
    queue.GetData(nullptr, &size);
    std::vector<std::uint8_t> element(size);
    queue.GetData(element.data(), &size);
    return element;
}

TEST(GenCPEventChannel, RepeatsAreFilteredAndEveryRequestIsAcknowledged)
{
    TestEventChannel channel;
    auto& queue = *channel.GetEventQueue();
    channel.ProcessPacket(Event(7, EventChannel::AcknowledgeFlag | EventChannel::RepeatedFlag, 0x9000));
    EXPECT_EQ(1u, queue.GetCount()) << "the first event of a channel is always taken";
    channel.ProcessPacket(Event(7, EventChannel::AcknowledgeFlag | EventChannel::RepeatedFlag, 0x9000));
    EXPECT_EQ(1u, queue.GetCount()) << "a repeat of the same request";
    channel.ProcessPacket(Event(7, EventChannel::AcknowledgeFlag, 0x9001));
    EXPECT_EQ(2u, queue.GetCount()) << "the same request ID without the repeat flag is new";
    channel.ProcessPacket(Event(8, 0, 0x9002));
    EXPECT_EQ(3u, queue.GetCount());
    ASSERT_EQ(3u, channel.sent.size()) << "one acknowledge for each packet that asked, the repeat too";
    for (const auto& ack : channel.sent) {
        EXPECT_EQ(EventChannel::EventAcknowledge, ack->GetCommandId());
        EXPECT_EQ(7, ack->GetRequestId());
        EXPECT_EQ(0, ack->GetPayloadSize());
        EXPECT_EQ(0, ack->GetStatus()) << "flags 0";
    }
}

TEST(GenCPEventChannel, BadEventsAreLoggedAndDroppedWithoutStoppingTheChannel)
{
    auto log = RecordedLog::Install();
    TestEventChannel channel(20, false);
    auto& queue = *channel.GetEventQueue();
    channel.ProcessPacket(nullptr);
    EXPECT_EQ(1, log->Count("Invalid event received. Reason: No packet passed."));
    channel.ProcessPacket(Event(1, 0, 1, "", 0x0800));
    EXPECT_EQ(1, log->Count("Invalid event received. Reason: Invalid command ID found."));
    auto shortPacket = std::make_shared<CCIPacket>(11);
    shortPacket->SetCommandId(EventChannel::EventCommand);
    channel.ProcessPacket(shortPacket);
    EXPECT_EQ(1, log->Count("Reason: Event payload size too small for event command data."));
    channel.ProcessPacket(Event(2, 0, 1, std::string(9, 'x')));
    EXPECT_EQ(1, log->Count("Reason: Event payload size larger than maximum payload size."));
    EXPECT_EQ(0u, queue.GetCount());

    channel.ProcessPacket(Event(3, EventChannel::AcknowledgeFlag, 1, std::string(8, 'x')));
    EXPECT_EQ(1u, queue.GetCount()) << "the event stands even when its acknowledge cannot be sent";
    EXPECT_EQ(1, log->Count("Could not send event acknowledge. Reason: No support for acknowledge available."));
    EXPECT_TRUE(channel.sent.empty());
    Tools::Logger::Clear();
}

TEST(GenCPEventChannel, TheGenTLViewOfAnEvent)
{
    TestEventChannel channel;
    auto& queue = *channel.GetEventQueue();
    auto parser = queue.GetEventDataParser();
    channel.ProcessPacket(Event(1, 0, 0x9000));
    channel.ProcessPacket(Event(2, 0, 0x1234, "abcd"));
    channel.ProcessPacket(Event<BigEndianPacket>(3, 0, 0x3412));

    std::size_t small = 5;
    std::uint8_t tiny[5];
    EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Data size too small."), Failure([&] { queue.GetData(tiny, &small); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No size passed."), Failure([&] { queue.GetData(tiny, nullptr); }));
    EXPECT_EQ(3u, queue.GetCount()) << "a failed read takes nothing";

    auto first = Take(queue);
    ASSERT_EQ(9u + 12u, first.size());
    auto text = [&](const std::vector<std::uint8_t>& e, EVENT_DATA_INFO_CMD cmd) {
        return std::dynamic_pointer_cast<const Base::StringInfo>(parser->GetDataInfo(e.data(), e.size(), cmd))
            ->GetValue();
    };
    auto value = [&](const std::vector<std::uint8_t>& e) {
        return std::dynamic_pointer_cast<const Base::BufferInfo>(parser->GetDataInfo(e.data(), e.size(), EVENT_DATA_VALUE))
            ->GetValue();
    };
    EXPECT_EQ("9000", text(first, EVENT_DATA_ID));
    EXPECT_TRUE(value(first).empty()) << "a payload of exactly 12 bytes";
    auto second = Take(queue);
    EXPECT_EQ("1234", text(second, EVENT_DATA_ID));
    EXPECT_EQ((std::vector<std::uint8_t>{'a', 'b', 'c', 'd'}), value(second));
    EXPECT_EQ(0x1234u, std::dynamic_pointer_cast<const Base::UInt64Info>(
                           parser->GetDataInfo(second.data(), second.size(), EVENT_DATA_NUMID))
                           ->GetValue());
    auto third = Take(queue);
    EXPECT_EQ(1, third[0]) << "stored with its byte order";
    EXPECT_EQ("1234", text(third, EVENT_DATA_ID)) << "swapped for a big-endian packet";
    EXPECT_EQ(Err(GC_ERR_ERROR, "No data in the queue."), Failure([&] { Take(queue); }));

    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Unsupported info requested."),
              Failure([&] { parser->GetDataInfo(second.data(), second.size(), EVENT_DATA_INFO_CMD(7)); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."),
              Failure([&] { parser->GetDataInfo(second.data(), 20, EVENT_DATA_ID); }));
    auto forged = second;
    forged[0] = 2;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Event data contains invalid endianess."),
              Failure([&] { parser->GetDataInfo(forged.data(), forged.size(), EVENT_DATA_ID); }));
    forged = second;
    const std::uint64_t tooLong = 100;
    std::memcpy(&forged[1], &tooLong, 8);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Event data contains invalid payload size."),
              Failure([&] { parser->GetDataInfo(forged.data(), forged.size(), EVENT_DATA_VALUE); }));
    EXPECT_EQ(64u + 9u, parser->GetMaxSize());
    EXPECT_EQ(64u, parser->GetMaxInfoSize());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Size too small for event command data."),
              Failure([&] { EventChannel::EventQueue::Create(11); }));
}

}
