// Chunk data at the end of a buffer: any filled bytes are either refused or
// cut into chunks that lie inside them, in order, and account for every byte.
#include "base/Exception.h"
#include "framework/ChunkData.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace QEL;
    std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[size]);
    std::copy(data, data + size, buffer.get());
    std::vector<SINGLE_CHUNK_DATA> chunks;
    try {
        chunks = Base::ParseChunks(buffer.get(), size);
    } catch (const System::Exception&) {
        return 0;
    }
    std::uint64_t next = 0;
    for (const SINGLE_CHUNK_DATA& chunk : chunks) {
        const auto offset = static_cast<std::uint64_t>(chunk.ChunkOffset);
        if (offset != next || chunk.ChunkLength % 4 != 0 || offset + chunk.ChunkLength + 8 > size)
            __builtin_trap();
        next = offset + chunk.ChunkLength + 8;
    }
    if (next != size)
        __builtin_trap();
    return 0;
}
