// The CCI packet of the control bus: any bytes as a received packet, its
// fields and CRC; a packet sealed by us always passes its own CRC check and
// a single flipped bit never does.
#include "base/Exception.h"
#include "gencp/CCIPacket.h"
#include "tests/fuzz/FuzzInput.h"

namespace {

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace QEL;
    using QEL::Base::GenCP::CCIPacket;
    try {
        CCIPacket received(data, size);
        received.HasValidCrc();
        Check(std::size_t{received.GetPayloadSize()} + 16 <= received.GetBytes().size());
        received.GetCommandId();
        received.GetRequestId();
        received.GetStatus();
    } catch (const System::Exception&) {
    }

    Fuzz::Input input(data, size);
    const std::vector<std::uint8_t> payload = input.TakeBytes(input.TakeBelow(2048));
    CCIPacket sent(payload.size());
    std::copy(payload.begin(), payload.end(), sent.GetPayload());
    sent.SetCommandId(input.Take<std::uint16_t>());
    sent.SetRequestId(input.Take<std::uint16_t>());
    sent.Seal();
    Check(sent.HasValidCrc());
    std::vector<std::uint8_t> bytes = sent.GetBytes();
    CCIPacket copy(bytes.data(), bytes.size());
    Check(copy.HasValidCrc() && copy.GetPayloadSize() == payload.size());
    const std::size_t bit = input.TakeBelow(8 * (bytes.size() - 2));
    bytes[2 + bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
    // The preamble is outside the CRC; a flipped length may make the packet invalid.
    try {
        Check(!CCIPacket(bytes.data(), bytes.size()).HasValidCrc());
    } catch (const System::Exception&) {
    }
    return 0;
}
