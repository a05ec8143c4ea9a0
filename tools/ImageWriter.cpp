#include "tools/ImageWriter.h"

#include <png.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace LorunTool {

namespace {

enum class Layout { Packed, Word16 };
enum class Bayer { None, RG, GR, GB, BG };

struct FormatInfo {
    std::uint64_t pfnc;
    std::uint32_t bits;     // significant bits of a sample
    std::uint32_t channels; // samples per pixel as stored
    Layout layout;          // LSB-first packing, or one little-endian 16-bit word per sample
    Bayer bayer;
};

const FormatInfo Formats[] = {
    {0x01080001, 8, 1, Layout::Packed, Bayer::None},  // Mono8
    {0x01100003, 10, 1, Layout::Word16, Bayer::None}, // Mono10
    {0x01100005, 12, 1, Layout::Word16, Bayer::None}, // Mono12
    {0x01100007, 16, 1, Layout::Word16, Bayer::None}, // Mono16
    {0x010A0046, 10, 1, Layout::Packed, Bayer::None}, // Mono10p
    {0x010C0047, 12, 1, Layout::Packed, Bayer::None}, // Mono12p
    {0x02180014, 8, 3, Layout::Packed, Bayer::None},  // RGB8
    {0x01080008, 8, 1, Layout::Packed, Bayer::GR},    // BayerGR8
    {0x01080009, 8, 1, Layout::Packed, Bayer::RG},    // BayerRG8
    {0x0108000A, 8, 1, Layout::Packed, Bayer::GB},    // BayerGB8
    {0x0108000B, 8, 1, Layout::Packed, Bayer::BG},    // BayerBG8
};

const FormatInfo& Find(std::uint64_t pfnc)
{
    for (const FormatInfo& format : Formats)
        if (format.pfnc == pfnc)
            return format;
    char text[64];
    std::snprintf(text, sizeof text, "pixel format 0x%08llx cannot be saved as an image",
                  static_cast<unsigned long long>(pfnc));
    throw std::runtime_error(text);
}

// The colour (0 R, 1 G, 2 B) of the Bayer cell at (x, y).
int CellColour(Bayer bayer, std::uint32_t x, std::uint32_t y)
{
    static const int cells[4][4] = {{0, 1, 1, 2}, {1, 0, 2, 1}, {1, 2, 0, 1}, {2, 1, 1, 0}}; // RG, GR, GB, BG
    return cells[static_cast<int>(bayer) - 1][(y % 2) * 2 + x % 2];
}

Image Demosaic(const Image& raw, Bayer bayer)
{
    Image rgb = raw;
    rgb.channels = 3;
    rgb.samples.assign(std::size_t{raw.width} * raw.height * 3, 0);
    const auto w = static_cast<std::int64_t>(raw.width), h = static_cast<std::int64_t>(raw.height);
    for (std::int64_t y = 0; y < h; ++y)
        for (std::int64_t x = 0; x < w; ++x)
            for (int colour = 0; colour < 3; ++colour) {
                // The mean of the cells of this colour in the 3x3 neighbourhood.
                std::uint32_t sum = 0, count = 0;
                for (std::int64_t dy = -1; dy <= 1; ++dy)
                    for (std::int64_t dx = -1; dx <= 1; ++dx) {
                        const std::int64_t nx = x + dx, ny = y + dy;
                        if (nx < 0 || ny < 0 || nx >= w || ny >= h)
                            continue;
                        if (CellColour(bayer, static_cast<std::uint32_t>(nx), static_cast<std::uint32_t>(ny)) !=
                            colour)
                            continue;
                        if (CellColour(bayer, static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y)) ==
                                colour &&
                            (dx || dy))
                            continue; // a cell of this colour keeps its own value
                        sum += raw.samples[static_cast<std::size_t>(ny * w + nx)];
                        ++count;
                    }
                rgb.samples[static_cast<std::size_t>((y * w + x) * 3 + colour)] =
                    static_cast<std::uint16_t>(count ? (sum + count / 2) / count : 0);
            }
    return rgb;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

std::unique_ptr<std::FILE, FileCloser> Create(const std::string& path)
{
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file)
        throw std::runtime_error("could not create " + path);
    return file;
}

void WritePng(const std::string& path, const Image& image)
{
    auto file = Create(path);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        throw std::runtime_error("could not start PNG " + path);
    }
    const std::size_t rowSamples = std::size_t{image.width} * image.channels;
    std::vector<png_byte> row(rowSamples * (image.bitDepth / 8));
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("could not write PNG " + path);
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, image.width, image.height, static_cast<int>(image.bitDepth),
                 image.channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (image.bitDepth == 16) {
        png_color_8 bits{};
        bits.gray = bits.red = bits.green = bits.blue = static_cast<png_byte>(image.significantBits);
        png_set_sBIT(png, info, &bits);
    }
    png_write_info(png, info);
    for (std::uint32_t y = 0; y < image.height; ++y) {
        const std::uint16_t* in = &image.samples[y * rowSamples];
        for (std::size_t i = 0; i < rowSamples; ++i) {
            if (image.bitDepth == 16) {
                const auto scaled = static_cast<std::uint16_t>(in[i] << (16 - image.significantBits));
                row[2 * i] = static_cast<png_byte>(scaled >> 8); // PNG is big endian
                row[2 * i + 1] = static_cast<png_byte>(scaled);
            } else {
                row[i] = static_cast<png_byte>(in[i]);
            }
        }
        png_write_row(png, row.data());
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
}

void WritePgm(const std::string& path, const Image& image)
{
    if (image.channels != 1)
        throw std::runtime_error("PGM holds grey images only; save colour as png");
    auto file = Create(path);
    const unsigned maximum = (1u << image.significantBits) - 1;
    std::fprintf(file.get(), "P5\n%u %u\n%u\n", image.width, image.height, maximum);
    for (std::uint16_t sample : image.samples) {
        if (maximum > 255)
            std::fputc(sample >> 8, file.get());
        std::fputc(sample & 0xFF, file.get());
    }
    if (std::ferror(file.get()))
        throw std::runtime_error("could not write " + path);
}

}

Image Decode(std::uint64_t pfnc, std::uint32_t width, std::uint32_t height, const std::uint8_t* data,
             std::size_t size)
{
    const FormatInfo& format = Find(pfnc);
    Image image;
    image.width = width;
    image.height = height;
    image.channels = format.channels;
    image.significantBits = format.bits;
    image.bitDepth = format.bits > 8 ? 16 : 8;
    const std::uint64_t count = std::uint64_t{width} * height * format.channels;
    const std::uint64_t bitsPerSample = format.layout == Layout::Word16 ? 16 : format.bits;
    if ((count * bitsPerSample + 7) / 8 > size)
        throw std::runtime_error("the buffer is smaller than its image");
    image.samples.resize(count);
    const std::uint32_t mask = (1u << format.bits) - 1;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t bit = i * bitsPerSample;
        std::uint32_t window = 0;
        for (unsigned b = 0; b < (bit % 8 + bitsPerSample + 7) / 8; ++b)
            window |= std::uint32_t{data[bit / 8 + b]} << (8 * b);
        image.samples[i] = static_cast<std::uint16_t>((window >> (bit % 8)) & mask);
    }
    return format.bayer == Bayer::None ? image : Demosaic(image, format.bayer);
}

const char* Extension(ImageFormat format)
{
    switch (format) {
    case ImageFormat::Png: return "png";
    case ImageFormat::Pgm: return "pgm";
    default: return "raw";
    }
}

void SaveImage(const std::string& path, ImageFormat format, std::uint64_t pfnc, std::uint32_t width,
               std::uint32_t height, const std::uint8_t* data, std::size_t size)
{
    if (format == ImageFormat::Raw) {
        auto file = Create(path);
        if (std::fwrite(data, 1, size, file.get()) != size)
            throw std::runtime_error("could not write " + path);
        return;
    }
    const Image image = Decode(pfnc, width, height, data, size);
    if (format == ImageFormat::Png)
        WritePng(path, image);
    else
        WritePgm(path, image);
}

}
