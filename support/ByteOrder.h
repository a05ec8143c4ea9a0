#pragma once

#include <cstddef>
#include <cstdint>

namespace QEL { namespace System {

bool IsHostBigEndian();

// Reverses the bytes of the value at `data` in place.
void SwapBytes(void* data, std::size_t size);

// A 16-bit field of a little-endian record.
inline std::uint16_t GetLE16(const std::uint8_t* at) { return static_cast<std::uint16_t>(at[0] | at[1] << 8); }
inline void PutLE16(std::uint8_t* at, std::uint16_t value)
{
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}

} }
