// Event packets from a camera and the event records a consumer hands back:
// packets of any header and payload go through the channel's checks and
// repeat filter, the stored events are read out in buffers of any size, and
// any bytes are interpreted as a stored event and as each module event record.
#include "base/Exception.h"
#include "framework/EventDataParser.h"
#include "gencp/CCIPacket.h"
#include "gencp/EventChannel.h"
#include "support/BasicLockable.h"
#include "tests/fuzz/FuzzInput.h"

#include <memory>

namespace {

using namespace QEL;
using namespace QEL::Base::GenCP;

class Channel : public Tools::BasicLockable<EventChannel> {
public:
    Channel(std::size_t maxPayload, bool acknowledges) : maxPayload(maxPayload), acknowledges(acknowledges)
    {
        CreateEventQueue();
    }
    std::size_t GetMaxPayload() const override { return maxPayload; }
    bool HasAcknowledgeSupport() const override { return acknowledges; }
    std::shared_ptr<Packet> CreatePacket(std::size_t payloadSize) override
    {
        return std::make_shared<CCIPacket>(payloadSize);
    }
    void SendPacket(const std::shared_ptr<Packet>&) override {}

private:
    std::size_t maxPayload;
    bool acknowledges;
};

std::shared_ptr<Packet> NextPacket(Fuzz::Input& input)
{
    if (input.TakeBool()) {
        const std::vector<std::uint8_t> bytes = input.TakeBytes(input.TakeBelow(300));
        return std::make_shared<CCIPacket>(bytes.data(), bytes.size());
    }
    // A well-formed header around any payload reaches the checks behind the header's.
    const std::vector<std::uint8_t> payload = input.TakeBytes(input.TakeBelow(300));
    auto packet = std::make_shared<CCIPacket>(payload.size());
    std::copy(payload.begin(), payload.end(), packet->GetPayload());
    packet->SetCommandId(input.TakeBool() ? EventChannel::EventCommand : input.Take<std::uint16_t>());
    packet->SetFlags(input.Take<std::uint16_t>());
    packet->SetRequestId(input.Take<std::uint16_t>());
    return packet;
}

void Interpret(const Base::EventDataParser& parser, const std::vector<std::uint8_t>& bytes)
{
    for (EVENT_DATA_INFO_CMD cmd = EVENT_DATA_ID; cmd <= 3; ++cmd) {
        try {
            parser.GetDataInfo(bytes.data(), bytes.size(), cmd);
        } catch (const System::Exception&) {
        }
    }
}

template <class Record>
void InterpretRecord(const std::vector<std::uint8_t>& bytes)
{
    Interpret(Base::BasicEventDataParser<Record>(), bytes);
}

}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::Input input(data, size);
    const std::size_t maxPayload = input.TakeBelow(512);
    const bool acknowledges = input.TakeBool();
    std::unique_ptr<Channel> channel;
    try {
        channel = std::make_unique<Channel>(maxPayload, acknowledges);
    } catch (const System::Exception&) {
        // Too small a payload for an event's header is refused.
        return 0;
    }
    const auto& queue = channel->GetEventQueue();
    for (int i = 0; i < 8 && !input.Empty(); ++i) {
        try {
            channel->ProcessPacket(NextPacket(input));
        } catch (const System::Exception&) {
        }
    }
    const auto parser = queue->GetEventDataParser();
    while (!queue->IsEmpty()) {
        // One byte more than offered, so that an empty offer is still not a size query.
        const std::size_t offered = input.TakeBelow(600);
        std::vector<std::uint8_t> element(offered + 1);
        std::size_t room = offered;
        try {
            queue->GetData(element.data(), &room);
            if (room > offered)
                __builtin_trap();
            element.resize(room);
            Interpret(*parser, element);
        } catch (const System::Exception&) {
            queue->Flush();
        }
    }
    const std::vector<std::uint8_t> forged = input.TakeRest();
    Interpret(*parser, forged);
    InterpretRecord<Base::ErrorData>(forged);
    InterpretRecord<Base::FeatureInvalidateData>(forged);
    InterpretRecord<Base::FeatureChangeData>(forged);
    InterpretRecord<Base::DeviceEventData<256>>(forged);
    InterpretRecord<Base::InterfaceChangeEventData<256>>(forged);
    InterpretRecord<Base::SystemChangeEventData>(forged);
    InterpretRecord<Base::BufferData>(forged);
    return 0;
}
