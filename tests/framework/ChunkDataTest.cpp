#include "base/BaseException.h"
#include "framework/ChunkData.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace QEL::Base;

namespace {

// Appends a chunk: its data, then its ID and length.
void Chunk(std::vector<std::uint8_t>& buffer, std::uint32_t id, std::uint32_t length, std::uint8_t fill)
{
    buffer.insert(buffer.end(), length, fill);
    const std::size_t at = buffer.size();
    buffer.resize(at + 8);
    std::memcpy(&buffer[at], &id, 4);
    std::memcpy(&buffer[at + 4], &length, 4);
}

TEST(ChunkData, ChunksComeInTheOrderOfTheBuffer)
{
    std::vector<std::uint8_t> buffer;
    Chunk(buffer, 0xA, 16, 1); // the image, as the first chunk
    Chunk(buffer, 0xB, 4, 2);
    Chunk(buffer, 0xC, 0, 0);
    const auto chunks = ParseChunks(buffer.data(), buffer.size());
    ASSERT_EQ(3u, chunks.size());
    EXPECT_EQ(0xAu, chunks[0].ChunkID);
    EXPECT_EQ(0, chunks[0].ChunkOffset) << "the first chunk's data starts the buffer";
    EXPECT_EQ(16u, chunks[0].ChunkLength);
    EXPECT_EQ(0xBu, chunks[1].ChunkID);
    EXPECT_EQ(24, chunks[1].ChunkOffset);
    EXPECT_EQ(4u, chunks[1].ChunkLength);
    EXPECT_EQ(0xCu, chunks[2].ChunkID);
    EXPECT_EQ(36, chunks[2].ChunkOffset);
    EXPECT_TRUE(ParseChunks(buffer.data(), 0).empty()) << "nothing filled, no chunks and no failure";
}

TEST(ChunkData, BrokenLayoutsAreRefusedWithoutReadingOutside)
{
    std::vector<std::uint8_t> buffer;
    Chunk(buffer, 1, 6, 0);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Chunk data not aligned to 4 bytes."),
              Failure([&] { ParseChunks(buffer.data(), buffer.size()); }));

    buffer.clear();
    Chunk(buffer, 1, 8, 0);
    const std::uint32_t tooLong = 12;
    std::memcpy(&buffer[buffer.size() - 4], &tooLong, 4);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid chunk data found."),
              Failure([&] { ParseChunks(buffer.data(), buffer.size()); }))
        << "a length reaching before the buffer";

    buffer.clear();
    Chunk(buffer, 1, 8, 0);
    buffer.insert(buffer.begin(), 4, 0); // four bytes that belong to no chunk
    EXPECT_EQ(Err(GC_ERR_ERROR, "Chunk data cannot be parsed correctly."),
              Failure([&] { ParseChunks(buffer.data(), buffer.size()); }));
}

}
