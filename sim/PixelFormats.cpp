#include "sim/PixelFormats.h"

#include <stdexcept>

namespace QEL { namespace Sim {

const std::vector<PixelFormat>& PixelFormats()
{
    static const std::vector<PixelFormat> formats = {
        {"Mono8", 0x01080001, 8, 8, 1},
        {"Mono10p", 0x010A0046, 10, 10, 1},
        {"Mono12", 0x01100005, 16, 12, 1},
        {"BayerRG8", 0x01080009, 8, 8, 1},
        {"RGB8", 0x02180014, 24, 8, 3},
    };
    return formats;
}

const PixelFormat& PixelFormatByName(const std::string& name)
{
    for (const PixelFormat& format : PixelFormats())
        if (format.name == name)
            return format;
    throw std::invalid_argument("unknown pixel format '" + name + "'");
}

const PixelFormat& PixelFormatByCode(std::uint32_t pfnc)
{
    for (const PixelFormat& format : PixelFormats())
        if (format.pfnc == pfnc)
            return format;
    throw std::invalid_argument("unknown pixel format code");
}

std::uint64_t PayloadBytes(std::uint32_t width, std::uint32_t height, const PixelFormat& format)
{
    const std::uint64_t bits = std::uint64_t{width} * height * format.bitsPerPixel;
    return (bits + 7) / 8;
}

std::uint32_t PatternSample(std::uint32_t x, std::uint32_t y, std::uint32_t sample, std::uint64_t blockID,
                            const PixelFormat& format, std::uint32_t pattern)
{
    const std::uint32_t mask = (1u << format.bitDepth) - 1;
    switch (pattern) {
    case 0: // moving diagonal ramp
        return static_cast<std::uint32_t>(x * 3 + y * 5 + sample * 7 + blockID) & mask;
    case 1: // horizontal ramp
        return x & mask;
    case 2: // vertical ramp
        return y & mask;
    default: // flat grey
        return (mask + 1) / 2;
    }
}

// Samples are stored LSB first, back to back, each `bitsPerPixel / samples`
// bits wide: 8-bit formats byte by byte, Mono12 as little-endian 16-bit
// words, Mono10p four samples in five bytes.
void RenderPattern(std::uint8_t* out, std::uint32_t width, std::uint32_t height, const PixelFormat& format,
                   std::uint64_t blockID, std::uint32_t pattern)
{
    const unsigned bitsPerSample = format.bitsPerPixel / format.samples;
    std::uint64_t accumulator = 0;
    unsigned pending = 0;
    for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x)
            for (std::uint32_t s = 0; s < format.samples; ++s) {
                accumulator |= std::uint64_t{PatternSample(x, y, s, blockID, format, pattern)} << pending;
                pending += bitsPerSample;
                while (pending >= 8) {
                    *out++ = static_cast<std::uint8_t>(accumulator);
                    accumulator >>= 8;
                    pending -= 8;
                }
            }
    if (pending > 0)
        *out = static_cast<std::uint8_t>(accumulator);
}

std::uint32_t ReadSample(const std::uint8_t* image, std::uint32_t width, std::uint32_t x, std::uint32_t y,
                         std::uint32_t sample, const PixelFormat& format)
{
    const unsigned bitsPerSample = format.bitsPerPixel / format.samples;
    const std::uint64_t bit = ((std::uint64_t{y} * width + x) * format.samples + sample) * bitsPerSample;
    std::uint64_t window = 0;
    for (unsigned i = 0; i < (bit % 8 + bitsPerSample + 7) / 8; ++i)
        window |= std::uint64_t{image[bit / 8 + i]} << (8 * i);
    return static_cast<std::uint32_t>((window >> (bit % 8)) & ((1u << bitsPerSample) - 1));
}

} }
