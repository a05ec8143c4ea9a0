#pragma once

#include <cstddef>
#include <cstdint>

namespace QEL { namespace Base { namespace GenCP {

// The CRC32 of GenCP over CCI: reflected, polynomial 0xEDB88320, start value
// 0xFFFFFFFF, and no final inversion.
inline std::uint32_t Crc32(const std::uint8_t* data, std::size_t size)
{
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return crc;
}

} } }
