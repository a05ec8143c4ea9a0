#include "support/ByteOrder.h"

#include "base/Exception.h"

#include <algorithm>
#include <cstdint>

namespace QEL { namespace System {

bool IsHostBigEndian()
{
    const std::uint16_t probe = 1;
    return *reinterpret_cast<const std::uint8_t*>(&probe) == 0;
}

void SwapBytes(void* data, std::size_t size)
{
    if (!data)
        throw Exception("No data passed.");
    auto* bytes = static_cast<std::uint8_t*>(data);
    std::reverse(bytes, bytes + size);
}

} }
