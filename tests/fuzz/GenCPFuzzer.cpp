// GenCP commands and their acknowledges: a device whose every answer comes
// from the input (dropped, stale, pending, any command, status and length),
// with register reads and writes of every size and the bootstrap registers.
#include "base/BaseException.h"
#include "gencp/CCIPacket.h"
#include "gencp/ControlChannel.h"
#include "tests/fuzz/FuzzInput.h"

#include <vector>

namespace {

using namespace QEL;
using namespace QEL::Base::GenCP;

class ScriptedDevice : public ControlChannel {
public:
    explicit ScriptedDevice(Fuzz::Input& input) : ControlChannel(false), input(input) {}

    std::size_t GetMaxCommandPayload() override { return 1008; }
    std::size_t GetMaxAcknowledgePayload() override { return 1008; }
    std::shared_ptr<Packet> CreatePacket(std::size_t payloadSize) override
    {
        return std::make_shared<CCIPacket>(payloadSize);
    }
    void SendPacket(const std::shared_ptr<Packet>& packet) override { lastRequestId = packet->GetRequestId(); }
    void Flush() override {}

    // Mode bits: 1 an answer at all, 2 with the request ID of the command,
    // 4 with a CRC made to fit, 8 a well-formed header around the input.
    std::shared_ptr<Packet> ReceivePacket(std::uint32_t, std::size_t) override
    {
        const auto mode = input.Take<std::uint8_t>();
        if (!(mode & 1) || input.Empty())
            return nullptr;
        std::shared_ptr<CCIPacket> packet;
        if (mode & 8) {
            const std::vector<std::uint8_t> payload = input.TakeBytes(input.TakeBelow(1100));
            packet = std::make_shared<CCIPacket>(payload.size());
            std::copy(payload.begin(), payload.end(), packet->GetPayload());
            packet->SetCommandId(input.Take<std::uint16_t>());
            packet->SetFlags(input.Take<std::uint16_t>());
        } else {
            const std::vector<std::uint8_t> bytes = input.TakeBytes(input.TakeBelow(1100));
            packet = std::make_shared<CCIPacket>(bytes.data(), bytes.size());
        }
        if (mode & 2)
            packet->SetRequestId(lastRequestId);
        if (mode & 4)
            packet->Seal();
        if (!packet->HasValidCrc())
            throw Base::Exception("Received data didn't pass the CRC32 check.", GC_ERR_IO);
        return packet;
    }

private:
    Fuzz::Input& input;
    std::uint16_t lastRequestId = 0;
};

void Operate(ScriptedDevice& device, Fuzz::Input& input)
{
    const std::uint64_t address = input.Take<std::uint32_t>();
    std::vector<std::uint8_t> buffer(1 + input.TakeBelow(3000));
    switch (input.TakeBelow(12)) {
    case 0: device.ReadMemory(address, buffer.data(), buffer.size(), 10); break;
    case 1: device.WriteMemory(address, buffer.data(), buffer.size(), 10); break;
    case 2: device.ReadRegister32(address); break;
    case 3: device.ReadRegister64(address); break;
    case 4: device.ReadString(address, ControlChannel::StringRegisterSize); break;
    case 5: device.WriteString(address, ControlChannel::StringRegisterSize, "user name"); break;
    case 6: device.GetVersion(); break;
    case 7: device.GetManifestEntry(input.TakeBelow(4)); break;
    case 8: device.GetManufacturerName(); device.GetSerialNumber(); break;
    case 9: device.GetCapabilityWrittenLength(); device.GetCapabilityStringEncoding(); break;
    case 10: device.GetManifestEntryCount(); device.GetMaxDeviceResponseTime(); break;
    default: device.SetHeartbeatTimeout(input.Take<std::uint32_t>()); break;
    }
}

}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::Input input(data, size);
    ScriptedDevice device(input);
    for (int i = 0; i < 16 && !input.Empty(); ++i) {
        try {
            Operate(device, input);
        } catch (const System::Exception&) {
        }
    }
    return 0;
}
