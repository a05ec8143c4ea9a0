#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QEL { namespace Sim {

// A pixel format the virtual camera can send, with its GenICam PFNC code.
struct PixelFormat {
    std::string name;
    std::uint32_t pfnc;
    unsigned bitsPerPixel; // as stored, packing included
    unsigned bitDepth;     // of one sample
    unsigned samples;      // per pixel
};

const std::vector<PixelFormat>& PixelFormats();
const PixelFormat& PixelFormatByName(const std::string& name);
const PixelFormat& PixelFormatByCode(std::uint32_t pfnc);

std::uint64_t PayloadBytes(std::uint32_t width, std::uint32_t height, const PixelFormat& format);

// The deterministic test pattern: sample `sample` of pixel (x, y) of frame
// `blockID`. A test can recompute every value.
std::uint32_t PatternSample(std::uint32_t x, std::uint32_t y, std::uint32_t sample, std::uint64_t blockID,
                            const PixelFormat& format, std::uint32_t pattern);

// Writes the whole image in the format's layout; `out` holds PayloadBytes bytes.
void RenderPattern(std::uint8_t* out, std::uint32_t width, std::uint32_t height, const PixelFormat& format,
                   std::uint64_t blockID, std::uint32_t pattern);

// Reads sample `sample` of pixel (x, y) back out of a rendered image.
std::uint32_t ReadSample(const std::uint8_t* image, std::uint32_t width, std::uint32_t x, std::uint32_t y,
                         std::uint32_t sample, const PixelFormat& format);

} }
