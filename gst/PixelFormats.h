#pragma once

// The GenICam pixel formats the source element can put into a pipeline, and
// how: as they are (the buffer becomes the GstBuffer's memory) or unpacked
// into 16-bit samples (the one case that copies).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace LorunGst {

enum class Unpacking { None, Mono10p, Mono12p };

struct PixelFormat {
    const char* genicamName; // the PixelFormat entry
    std::uint32_t pfnc;
    const char* mediaType; // "video/x-raw" or "video/x-bayer"
    const char* gstFormat; // GstVideoFormat name, or the Bayer pattern
    std::uint32_t bitsPerPixel; // as the camera sends it
    std::uint32_t bytesPerPixelOut; // as the element pushes it
    Unpacking unpacking;
};

const std::vector<PixelFormat>& PixelFormats();
const PixelFormat* PixelFormatByName(const std::string& genicamName);
const PixelFormat* PixelFormatByCode(std::uint64_t pfnc);

// Bytes of one line as the camera sends it, without padding.
std::size_t PackedLineBytes(const PixelFormat& format, std::uint32_t width);

// Unpacks `height` lines of `width` samples, each line `sourceStride` bytes
// apart in `source` (which holds `sourceSize` bytes), into little-endian
// 16-bit samples, `width` to a line. Returns false, writing nothing, when
// `source` is too short for that geometry.
bool Unpack(const PixelFormat& format, const std::uint8_t* source, std::size_t sourceSize, std::size_t sourceStride,
            std::uint32_t width, std::uint32_t height, std::uint8_t* target);

}
