#pragma once

// Saves one image of a GenTL buffer: monochrome formats as 8- or 16-bit grey
// PNG (or PGM), colour and Bayer formats as colour PNG (Bayer demosaiced
// bilinearly), raw as the bare payload.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace LorunTool {

enum class ImageFormat { Png, Pgm, Raw };

struct Image {
    std::uint32_t width = 0, height = 0;
    std::uint32_t channels = 1;        // 1 grey, 3 RGB
    std::uint32_t bitDepth = 8;        // of each sample as it is stored: 8 or 16
    std::uint32_t significantBits = 8; // of the camera's samples, shifted up to fill 16 bits
    std::vector<std::uint16_t> samples; // row by row, channel by channel
};

// Decodes `size` bytes of the pixel format `pfnc` (PFNC codes); throws
// std::runtime_error for a format it does not know or a buffer too small.
Image Decode(std::uint64_t pfnc, std::uint32_t width, std::uint32_t height, const std::uint8_t* data,
             std::size_t size);

// The file name's extension for a format.
const char* Extension(ImageFormat format);

// Writes the frame to `path`; raw writes the bytes as they are. Throws
// std::runtime_error naming the file on failure.
void SaveImage(const std::string& path, ImageFormat format, std::uint64_t pfnc, std::uint32_t width,
               std::uint32_t height, const std::uint8_t* data, std::size_t size);

}
