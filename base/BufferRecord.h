#pragma once

// The record of buffer info 1001: every value of a buffer in one call, 176
// bytes in the host's byte order. Word 0 has a bit per field that is valid.
// The buffer queue writes it; the chunk parser and this producer's consumers
// (lorunsrc) read it.
#include "base/GenTL.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

namespace QEL { namespace Base { namespace BufferRecord {

constexpr BUFFER_INFO_CMD Command = 1001;
constexpr std::size_t Size = 176;

struct Field {
    std::size_t offset;
    std::size_t width; // 4 or 8
    unsigned bit;      // of the validity word
};

constexpr Field Valid{0, 8, 0}; // the validity word itself (its bit is unused)
constexpr Field BasePointer{8, 8, 0}, BufferSize{16, 8, 1}, UserPointer{24, 8, 2}, Timestamp{32, 8, 3},
    FrameId{40, 8, 4}, Flags{48, 4, 5}, Status{52, 4, 10}, Filled{56, 8, 11}, Width{64, 8, 12}, Height{72, 8, 13},
    XOffset{80, 8, 14}, YOffset{88, 8, 15}, XPadding{96, 8, 16}, YPadding{104, 8, 17}, ImageOffset{112, 8, 18},
    Info1000{120, 8, 19}, PayloadType{128, 8, 20}, PixelFormat{136, 8, 21}, PixelFormatNamespace{144, 8, 22},
    DeliveredImageHeight{152, 8, 23}, DeliveredChunkPayloadSize{160, 8, 24}, ChunkLayoutId{168, 8, 25};

// The fields the stream channel's buffer infos fill, in ascending order of the info.
constexpr std::pair<BUFFER_INFO_CMD, Field> FromInfos[] = {
    {BUFFER_INFO_TIMESTAMP, Timestamp},
    {BUFFER_INFO_SIZE_FILLED, Filled},
    {BUFFER_INFO_WIDTH, Width},
    {BUFFER_INFO_HEIGHT, Height},
    {BUFFER_INFO_XOFFSET, XOffset},
    {BUFFER_INFO_YOFFSET, YOffset},
    {BUFFER_INFO_XPADDING, XPadding},
    {BUFFER_INFO_YPADDING, YPadding},
    {BUFFER_INFO_FRAMEID, FrameId},
    {BUFFER_INFO_IMAGEOFFSET, ImageOffset},
    {BUFFER_INFO_PAYLOADTYPE, PayloadType},
    {BUFFER_INFO_PIXELFORMAT, PixelFormat},
    {BUFFER_INFO_PIXELFORMAT_NAMESPACE, PixelFormatNamespace},
    {BUFFER_INFO_DELIVERED_IMAGEHEIGHT, DeliveredImageHeight},
    {BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE, DeliveredChunkPayloadSize},
    {BUFFER_INFO_CHUNKLAYOUTID, ChunkLayoutId},
    {1000, Info1000},
    {1002, Status}};
static_assert(
    [] {
        for (std::size_t i = 1; i < std::size(FromInfos); ++i)
            if (FromInfos[i - 1].first >= FromInfos[i].first)
                return false;
        return true;
    }(),
    "FromInfos must be in ascending order of the info");

// Bits of Flags; flag bit n is valid when validity bit Flags.bit + n is set.
constexpr std::uint32_t FlagNewData = 1, FlagQueued = 2, FlagAcquiring = 4, FlagIncomplete = 8, FlagImagePresent = 16;

// Each width copies a constant size, which compiles to one load or store
// instead of a call to memcpy: a record is written and read on every frame.
inline std::uint64_t Read(const std::uint8_t* record, Field field)
{
    if (field.width == 4) {
        std::uint32_t narrow = 0;
        std::memcpy(&narrow, record + field.offset, sizeof narrow);
        return narrow;
    }
    std::uint64_t wide = 0;
    std::memcpy(&wide, record + field.offset, sizeof wide);
    return wide;
}

inline void Write(std::uint8_t* record, Field field, std::uint64_t value)
{
    if (field.width == 4) {
        const auto narrow = static_cast<std::uint32_t>(value);
        std::memcpy(record + field.offset, &narrow, sizeof narrow);
        return;
    }
    std::memcpy(record + field.offset, &value, sizeof value);
}

inline bool Has(const std::uint8_t* record, Field field)
{
    return (Read(record, Valid) >> field.bit) & 1u;
}

// Whether one of the five flags is given (a single bit of Flags).
inline bool HasFlag(const std::uint8_t* record, std::uint32_t flag)
{
    unsigned n = 0;
    while ((flag >> n) > 1)
        ++n;
    return (Read(record, Valid) >> (Flags.bit + n)) & 1u;
}

}}} // namespace QEL::Base::BufferRecord
