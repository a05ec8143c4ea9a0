// Packed samples out of what the camera sends, against the virtual camera's
// own packing, and the refusals that keep a short frame from being over-read.
#include "gst/PixelFormats.h"
#include "sim/PixelFormats.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<std::uint16_t> Samples(const std::vector<std::uint8_t>& words)
{
    std::vector<std::uint16_t> samples(words.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<std::uint16_t>(words[2 * i] | words[2 * i + 1] << 8);
    return samples;
}

class Unpacking : public ::testing::TestWithParam<const char*> {};

TEST_P(Unpacking, EverySampleOfTheRenderedPattern)
{
    const LorunGst::PixelFormat* format = LorunGst::PixelFormatByName(GetParam());
    ASSERT_NE(nullptr, format);
    // Mono12p is not one the virtual camera sends: a stand-in with its layout.
    const QEL::Sim::PixelFormat pixel =
        std::string(GetParam()) == "Mono10p" ? QEL::Sim::PixelFormatByName("Mono10p")
                                             : QEL::Sim::PixelFormat{"Mono12p", 0x010C0047, 12, 12, 1};
    // 13 is odd: without padding, lines begin mid-byte.
    for (std::uint32_t width : {16u, 13u}) {
        const std::uint32_t height = 5;
        std::vector<std::uint8_t> packed(QEL::Sim::PayloadBytes(width, height, pixel));
        QEL::Sim::RenderPattern(packed.data(), width, height, pixel, 7, 0);
        std::vector<std::uint8_t> out(width * height * 2, 0xAA);
        ASSERT_TRUE(LorunGst::Unpack(*format, packed.data(), packed.size(), LorunGst::PackedLineBytes(*format, width),
                                     width, height, out.data()));
        const auto samples = Samples(out);
        for (std::uint32_t y = 0; y < height; ++y)
            for (std::uint32_t x = 0; x < width; ++x)
                ASSERT_EQ(QEL::Sim::PatternSample(x, y, 0, 7, pixel, 0), samples[y * width + x])
                    << GetParam() << " width " << width << " at " << x << "," << y;
    }
}

TEST_P(Unpacking, PaddedLinesSkipTheirPadding)
{
    const LorunGst::PixelFormat* format = LorunGst::PixelFormatByName(GetParam());
    const std::uint32_t width = 8, height = 3;
    const std::size_t line = LorunGst::PackedLineBytes(*format, width), stride = line + 4;
    std::vector<std::uint8_t> packed(stride * height, 0xFF); // padding all ones: must not show
    for (std::uint32_t y = 0; y < height; ++y)
        std::fill(packed.begin() + y * stride, packed.begin() + y * stride + line, 0);
    std::vector<std::uint8_t> out(width * height * 2, 0xAA);
    ASSERT_TRUE(LorunGst::Unpack(*format, packed.data(), packed.size(), stride, width, height, out.data()));
    for (std::uint16_t sample : Samples(out))
        EXPECT_EQ(0, sample);
}

TEST_P(Unpacking, AFrameTooShortIsRefusedUntouched)
{
    const LorunGst::PixelFormat* format = LorunGst::PixelFormatByName(GetParam());
    const std::uint32_t width = 16, height = 4;
    const std::size_t line = LorunGst::PackedLineBytes(*format, width);
    std::vector<std::uint8_t> packed(line * height - 1);
    std::vector<std::uint8_t> out(width * height * 2, 0xAA);
    EXPECT_FALSE(LorunGst::Unpack(*format, packed.data(), packed.size(), line, width, height, out.data()));
    EXPECT_FALSE(LorunGst::Unpack(*format, packed.data(), packed.size(), line - 1, width, 1, out.data()))
        << "a stride shorter than a line";
    for (std::uint8_t byte : out)
        ASSERT_EQ(0xAA, byte);
}

INSTANTIATE_TEST_SUITE_P(Packed, Unpacking, ::testing::Values("Mono10p", "Mono12p"));

TEST(PixelFormats, EachCodeAndNameIsOneFormat)
{
    for (const LorunGst::PixelFormat& format : LorunGst::PixelFormats()) {
        EXPECT_EQ(&format, LorunGst::PixelFormatByCode(format.pfnc)) << format.genicamName;
        EXPECT_EQ(&format, LorunGst::PixelFormatByName(format.genicamName));
    }
    // The virtual camera's codes are the same standard ones.
    for (const QEL::Sim::PixelFormat& sent : QEL::Sim::PixelFormats()) {
        const LorunGst::PixelFormat* format = LorunGst::PixelFormatByName(sent.name);
        ASSERT_NE(nullptr, format) << sent.name;
        EXPECT_EQ(sent.pfnc, format->pfnc) << sent.name;
        EXPECT_EQ(sent.bitsPerPixel, format->bitsPerPixel) << sent.name;
    }
    EXPECT_EQ(nullptr, LorunGst::PixelFormatByCode(0));
}

}
