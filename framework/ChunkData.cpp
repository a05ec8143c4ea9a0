#include "framework/ChunkData.h"

#include "base/BaseException.h"

#include <algorithm>
#include <cstring>

namespace QEL { namespace Base {

std::vector<SINGLE_CHUNK_DATA> ParseChunks(const std::uint8_t* data, std::uint64_t filled)
{
    std::vector<SINGLE_CHUNK_DATA> chunks;
    std::uint64_t remaining = filled;
    while (remaining >= 9) {
        std::uint32_t chunkId = 0, length = 0;
        std::memcpy(&chunkId, data + remaining - 8, 4);
        std::memcpy(&length, data + remaining - 4, 4);
        remaining -= 8;
        if (length % 4)
            throw Exception("Chunk data not aligned to 4 bytes.", GC_ERR_ERROR);
        if (length > remaining)
            throw Exception("Invalid chunk data found.", GC_ERR_ERROR);
        remaining -= length;
        SINGLE_CHUNK_DATA chunk{};
        chunk.ChunkID = chunkId;
        chunk.ChunkOffset = static_cast<std::ptrdiff_t>(remaining);
        chunk.ChunkLength = length;
        chunks.push_back(chunk);
    }
    if (remaining != 0)
        throw Exception("Chunk data cannot be parsed correctly.", GC_ERR_ERROR);
    std::reverse(chunks.begin(), chunks.end());
    return chunks;
}

} }
