#include "gencp/CCIPacket.h"

#include "base/BaseException.h"
#include "gencp/Crc32.h"
#include "support/Allocation.h"

#include <new>

namespace QEL { namespace Base { namespace GenCP {

CCIPacket::CCIPacket(const std::uint8_t* data, std::size_t size)
{
    if (!data)
        throw Exception("No packet data.", GC_ERR_INVALID_PARAMETER);
    if (size < 16 || size > 0x1000F)
        throw Exception("Invalid packet size passed.", GC_ERR_INVALID_PARAMETER);
    bytes.assign(data, data + size);
    if (std::size_t{GetPayloadSize()} + 16 > size)
        throw Exception("Invalid packet length found.", GC_ERR_INVALID_PARAMETER);
}

CCIPacket::CCIPacket(std::size_t payloadSize)
{
    if (payloadSize >= 65536)
        throw Exception("Invalid payload size passed.", GC_ERR_INVALID_PARAMETER);
    Tools::Allocating("Could not allocate packet data.", [&] { bytes.assign(payloadSize + 16, 0); });
    Put16(12, static_cast<std::uint16_t>(payloadSize));
}

void CCIPacket::Seal()
{
    Put16(0, 0x0100);
    Put16(6, 0);
    const std::uint32_t crc = Crc32(bytes.data() + 6, bytes.size() - 6);
    for (int i = 0; i < 4; ++i)
        bytes[2 + i] = static_cast<std::uint8_t>(crc >> (8 * i));
}

bool CCIPacket::HasValidCrc() const
{
    std::uint32_t stored = 0;
    for (int i = 0; i < 4; ++i)
        stored |= std::uint32_t{bytes[2 + i]} << (8 * i);
    return stored == Crc32(bytes.data() + 6, bytes.size() - 6);
}

} } }
