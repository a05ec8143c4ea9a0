#pragma once

#include <boost/crc.hpp>

#include <cstddef>
#include <cstdint>

namespace QEL { namespace Base { namespace GenCP {

// The CRC32 of GenCP over CCI: reflected, polynomial 0x04C11DB7 (0xEDB88320
// reflected), start value 0xFFFFFFFF, and no final inversion.
inline std::uint32_t Crc32(const std::uint8_t* data, std::size_t size)
{
    boost::crc_optimal<32, 0x04C11DB7u, 0xFFFFFFFFu, 0u, true, true> crc;
    crc.process_bytes(data, size);
    return crc.checksum();
}

} } }
