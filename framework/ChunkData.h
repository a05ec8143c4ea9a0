#pragma once

#include "base/GenTL.h"

#include <cstdint>
#include <vector>

namespace QEL { namespace Base {

// The chunks of a filled buffer of `filled` bytes, in the order of the buffer.
// Chunks are read from the end: each ends in its 32-bit ID and 32-bit length,
// little-endian. Throws the buffer's fault as a Base::Exception.
std::vector<SINGLE_CHUNK_DATA> ParseChunks(const std::uint8_t* data, std::uint64_t filled);

} }
