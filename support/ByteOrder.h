#pragma once

#include <cstddef>

namespace QEL { namespace System {

bool IsHostBigEndian();

// Reverses the bytes of the value at `data` in place.
void SwapBytes(void* data, std::size_t size);

} }
