#pragma once

#include "libcsi/include/libcsi/libcsi.h"

#include <cstdint>

namespace QEL { namespace LibCSI {

// A finished frame as the stream channel sees it.
struct frame_info {
    std::uint64_t frameId = 0;
    std::uint16_t payloadType = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t pixelFormat = 0;
    std::uint64_t timestamp = 0;
    std::uint16_t status = 0;
    std::uint32_t offsetX = 0;
    std::uint32_t offsetY = 0;
    std::uint16_t paddingX = 0;
    std::uint32_t chunkLayoutId = 0;
    std::uint32_t chunkSize = 0;
    std::uint32_t validSize = 0;
    std::uint32_t result = 0;
};

// Result values of a frame_info: libcsi's frame status.
enum FrameResult : std::uint32_t {
    RESULT_Success = 0,
    RESULT_Invalid = 1,
    RESULT_Incomplete = 2,
    RESULT_InvalidIncomplete = 3,
    RESULT_Unused = 4,
};

constexpr std::uint16_t PayloadTypeExtendedChunk = 0x4001;
constexpr std::uint64_t LeaderRecordSize = 52;
constexpr std::uint64_t TrailerRecordSize = 32;

// What the camera sent round the payload, read from the frame's leader and
// trailer where the frame has them (a leader of at least 52 bytes, a trailer
// of at least 32); the fields of a missing record stay 0. Nothing outside the
// sizes the record gives is read.
frame_info FrameInfoFromLeaderTrailer(const lib_frame_transfer& frame, std::uint32_t result);

// The image parameters that stand in for leader and trailer when the camera
// sends neither.
struct LeaderTrailerParameters {
    std::uint32_t sizeX = 0;
    std::uint32_t sizeY = 0;
    std::uint32_t offsetX = 0;
    std::uint32_t offsetY = 0;
    std::uint32_t paddingX = 0;
    std::uint32_t pixelFormat = 0;
    std::uint32_t payloadType = 0;
    std::uint32_t validPayloadSize = 0;
    std::uint32_t chunkLayoutId = 0;
};

// The frame_info of an emulated frame: its values from `parameters`, block ID
// `blockId`, timestamp, status and result 0.
frame_info EmulatedFrameInfo(const LeaderTrailerParameters& parameters, std::uint64_t blockId);

} }
