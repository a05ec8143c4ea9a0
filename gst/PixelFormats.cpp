#include "gst/PixelFormats.h"

namespace LorunGst {

const std::vector<PixelFormat>& PixelFormats()
{
    // Mono10/12/16 keep their samples in the low bits of the 16-bit words, as
    // the camera sends them; the packed ones are unpacked the same way.
    static const std::vector<PixelFormat> formats = {
        {"Mono8", 0x01080001, "video/x-raw", "GRAY8", 8, 1, Unpacking::None},
        {"Mono10", 0x01100003, "video/x-raw", "GRAY16_LE", 16, 2, Unpacking::None},
        {"Mono12", 0x01100005, "video/x-raw", "GRAY16_LE", 16, 2, Unpacking::None},
        {"Mono16", 0x01100007, "video/x-raw", "GRAY16_LE", 16, 2, Unpacking::None},
        {"Mono10p", 0x010A0046, "video/x-raw", "GRAY16_LE", 10, 2, Unpacking::Mono10p},
        {"Mono12p", 0x010C0047, "video/x-raw", "GRAY16_LE", 12, 2, Unpacking::Mono12p},
        {"BayerGR8", 0x01080008, "video/x-bayer", "grbg", 8, 1, Unpacking::None},
        {"BayerRG8", 0x01080009, "video/x-bayer", "rggb", 8, 1, Unpacking::None},
        {"BayerGB8", 0x0108000A, "video/x-bayer", "gbrg", 8, 1, Unpacking::None},
        {"BayerBG8", 0x0108000B, "video/x-bayer", "bggr", 8, 1, Unpacking::None},
        {"RGB8", 0x02180014, "video/x-raw", "RGB", 24, 3, Unpacking::None},
        {"BGR8", 0x02180015, "video/x-raw", "BGR", 24, 3, Unpacking::None},
        {"YUV422_8_UYVY", 0x0210001F, "video/x-raw", "UYVY", 16, 2, Unpacking::None},
        {"YUV422_8", 0x02100032, "video/x-raw", "YUY2", 16, 2, Unpacking::None},
    };
    return formats;
}

const PixelFormat* PixelFormatByName(const std::string& genicamName)
{
    for (const PixelFormat& format : PixelFormats())
        if (genicamName == format.genicamName)
            return &format;
    return nullptr;
}

const PixelFormat* PixelFormatByCode(std::uint64_t pfnc)
{
    for (const PixelFormat& format : PixelFormats())
        if (pfnc == format.pfnc)
            return &format;
    return nullptr;
}

std::size_t PackedLineBytes(const PixelFormat& format, std::uint32_t width)
{
    return (static_cast<std::size_t>(width) * format.bitsPerPixel + 7) / 8;
}

namespace {

// `count` samples of `bits` bits, LSB first and back to back, into 16-bit words.
void UnpackRun(const std::uint8_t* source, std::size_t count, unsigned bits, std::uint8_t* out)
{
    const std::uint32_t mask = (1u << bits) - 1;
    std::uint32_t window = 0;
    unsigned pending = 0;
    for (std::size_t i = 0; i < count; ++i) {
        while (pending < bits) {
            window |= static_cast<std::uint32_t>(*source++) << pending;
            pending += 8;
        }
        const std::uint32_t sample = window & mask;
        window >>= bits;
        pending -= bits;
        out[2 * i] = static_cast<std::uint8_t>(sample);
        out[2 * i + 1] = static_cast<std::uint8_t>(sample >> 8);
    }
}

}

bool Unpack(const PixelFormat& format, const std::uint8_t* source, std::size_t sourceSize, std::size_t sourceStride,
            std::uint32_t width, std::uint32_t height, std::uint8_t* target)
{
    if (format.unpacking == Unpacking::None || height == 0 || width == 0)
        return false;
    const unsigned bits = format.bitsPerPixel;
    const std::size_t lineBytes = PackedLineBytes(format, width);
    const bool lineEndsInAByte = static_cast<std::uint64_t>(width) * bits % 8 == 0;
    if (sourceStride == lineBytes && !lineEndsInAByte) {
        // Without padding the lines run on mid-byte: one run over the whole image.
        const std::size_t samples = static_cast<std::size_t>(width) * height;
        if (sourceSize < (samples * bits + 7) / 8)
            return false;
        UnpackRun(source, samples, bits, target);
        return true;
    }
    if (sourceStride < lineBytes || sourceSize < (height - 1) * sourceStride + lineBytes)
        return false;
    for (std::uint32_t y = 0; y < height; ++y)
        UnpackRun(source + y * sourceStride, width, bits, target + static_cast<std::size_t>(y) * width * 2);
    return true;
}

}
