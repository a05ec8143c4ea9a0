#include "framework/BufferRegister.h"
#include "framework/CallbackRegister.h"
#include "framework/GenericRegister.h"
#include "framework/InfoRegisters.h"
#include "framework/RegisterMap.h"
#include "framework/StringRegister.h"
#include "framework/XMLRegister.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

using namespace QEL::Base;

namespace {


TEST(AddressRange, LimitsAndOrder)
{
    EXPECT_NO_THROW(AddressRange(0xFFFFFFFFFFFFFFFFull, 1));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid address and size passed."),
              Failure([] { AddressRange(0xFFFFFFFFFFFFFFFFull, 2); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."), Failure([] { AddressRange(0, 0); }));
    AddressRange a(0x100, 0x10), b(0x110, 4), overlapping(0x10F, 2);
    EXPECT_TRUE(a < b);
    EXPECT_TRUE(b > a);
    EXPECT_FALSE(a < overlapping);
    EXPECT_FALSE(overlapping < a);
    EXPECT_TRUE(a.Contains(0x10F));
    EXPECT_FALSE(a.Contains(0x110));
}

TEST(RegisterMap, OverlapsAreRefused)
{
    RegisterMap map;
    map.Add(std::make_shared<StringRegister>(0x1000000, 256, AccessReadWrite));
    map.Add(std::make_shared<StringRegister>(0x1000100, 256, AccessReadWrite));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Register would overlap an existing register."),
              Failure([&] { map.Add(std::make_shared<StringRegister>(0x10000FF, 2, AccessReadWrite)); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Register address invalid."), Failure([&] { map.Find(0x10); }));
    EXPECT_TRUE(map.Find(0x10001FF));
}

TEST(GenericRegister, PartialWritesNeedAValue)
{
    GenericRegister<unsigned int> empty(0x10, AccessReadWrite);
    const std::uint16_t half = 0xABCD;
    size_t size = 2;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Register not initialized."), Failure([&] { empty.Write(0, &half, &size); }));
    empty.GetPreReadSignal().Connect([](GenericRegister<unsigned int>& reg) { reg.SetValue(0x11110000); });
    empty.Write(0, &half, &size);
    EXPECT_EQ(0x1111ABCDu, empty.GetValue()) << "the pre-read slot supplied the old value";

    GenericRegister<unsigned int> fresh(0x10, AccessReadWrite);
    const std::uint32_t full = 9;
    size = 4;
    fresh.Write(0, &full, &size);
    EXPECT_EQ(9u, fresh.GetValue()) << "a full-width write gives the first value";

    GenericRegister<unsigned int> writeOnly(0x10, 0x01020304u, AccessWrite);
    bool preReadFired = false;
    writeOnly.GetPreReadSignal().Connect([&](GenericRegister<unsigned int>&) { preReadFired = true; });
    size = 2;
    writeOnly.Write(2, &half, &size);
    EXPECT_EQ(0xABCD0304u, writeOnly.GetValue());
    EXPECT_FALSE(preReadFired) << "a write-only register merges without a pre-read";
    EXPECT_EQ(Err(GC_ERR_ACCESS_DENIED, "Read access not permitted."),
              Failure([&] { writeOnly.Read(0, &size, &size); }));
}

TEST(GenericRegister, PreWriteRefusesAndPostWriteFailuresAreDropped)
{
    GenericRegister<double> reg(0x20, 1.5, AccessReadWrite);
    reg.GetPreWriteSignal().Connect([](const double& v, GenericRegister<double>&) {
        if (v < 0)
            throw Exception("negative", GC_ERR_INVALID_PARAMETER);
    });
    int reactions = 0;
    reg.GetPostWriteSignal().Connect([&](GenericRegister<double>&) {
        ++reactions;
        throw Exception("reaction failed", GC_ERR_ERROR);
    });
    double value = -1;
    size_t size = sizeof value;
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, Failure([&] { reg.Write(0, &value, &size); }).first);
    EXPECT_EQ(1.5, reg.GetValue());
    value = 2.5;
    EXPECT_NO_THROW(reg.Write(0, &value, &size));
    EXPECT_EQ(2.5, reg.GetValue());
    EXPECT_EQ(1, reactions);

    size = 9;
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid address range passed."),
              Failure([&] { reg.Read(0, &value, &size); }));
    size = 1;
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid address passed."), Failure([&] { reg.Read(8, &value, &size); }));
    GenericRegister<std::uint64_t> unset(0x30, AccessRead);
    size = 8;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Register not initialized."), Failure([&] { unset.Read(0, &value, &size); }));
}

TEST(StringRegister, TextIsAPatchOnTheOldBlock)
{
    StringRegister reg(0x100, 256, "abc", AccessReadWrite);
    std::vector<char> block(256, 'x');
    size_t size = 256;
    reg.Read(0, block.data(), &size);
    EXPECT_EQ(0, std::memcmp(block.data(), "abc", 3));
    EXPECT_EQ(std::vector<char>(253, '\0'), std::vector<char>(block.begin() + 3, block.end()));

    StringRegister unread(0x100, 256, AccessReadWrite);
    size = 3;
    unread.Write(0, "ab", &size);
    EXPECT_EQ("ab", unread.GetValue()) << "a terminated write needs no old text";
    size = 1;
    unread.Write(1, "X", &size);
    EXPECT_EQ("aX", unread.GetValue());

    std::string full(256, 'y');
    size = 256;
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "String too long for register."),
              Failure([&] { reg.Write(0, full.data(), &size); }));
    EXPECT_EQ("abc", reg.GetValue());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "String too long for register."),
              Failure([&] { reg.SetValue(std::string(256, 'z')); }));
    EXPECT_NO_THROW(reg.SetValue(std::string(255, 'z')));

    StringRegister never(0x100, 16, AccessReadWrite);
    size = 2;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Register not initialized."), Failure([&] { never.Write(0, "ab", &size); }))
        << "an unterminated short write needs the old text";
}

TEST(InfoRegisters, MirrorInfoValues)
{
    FixedInfoRegister<UInt64Info const> wide(0x40, AccessRead);
    EXPECT_EQ(8u, wide.GetAddressRange().GetSize());
    std::uint32_t low = 0;
    size_t size = 4;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Register not initialized."), Failure([&] { wide.Read(0, &low, &size); }));
    wide.SetInfo(std::make_shared<UInt64Info>(0x1122334455667788ull));
    wide.Read(0, &low, &size);
    EXPECT_EQ(0x55667788u, low);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid pointer type."),
              Failure([&] { wide.SetInfo(std::make_shared<Int32Info>(1)); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Write access not permitted."),
              Failure([&] { wide.Write(0, &low, &size); }));
    EXPECT_EQ(Err(GC_ERR_NO_DATA, "Null pointer not allowed."),
              Failure([&] { wide.SetTypedInfo(nullptr); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Info registers are read only."),
              Failure([] { FixedInfoRegister<Int32Info>(0, AccessReadWrite); }));

    VariableInfoRegister<StringInfo const> text(0x50, 8, AccessRead);
    text.SetInfo(std::make_shared<StringInfo>("abcdefg"));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Info too long for register."),
              Failure([&] { text.SetInfo(std::make_shared<StringInfo>("abcdefgh")); }));
    text.SetInfo(std::make_shared<StringInfo>("ab"));
    char bytes[8];
    size = 8;
    text.Read(0, bytes, &size);
    EXPECT_EQ(0, std::memcmp(bytes, "ab\0\0\0\0\0\0", 8)) << "a shorter text is followed by zeros";
}

TEST(BufferAndXMLRegisters, Windows)
{
    BufferRegister empty(0x60, 100, AccessReadWrite);
    std::uint8_t bytes[8] = {};
    size_t size = 4;
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Buffer not available."), Failure([&] { empty.Read(0, bytes, &size); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "No buffer available."), Failure([&] { empty.GetBufferSize(); }));
    std::shared_ptr<std::uint8_t[]> memory(new std::uint8_t[50]());
    empty.SetBuffer(memory, 50);
    const std::uint8_t in[4] = {1, 2, 3, 4};
    empty.Write(46, in, &size);
    EXPECT_EQ(4, memory[49]);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid address passed."), Failure([&] { empty.Read(60, bytes, &size); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid buffer size passed."), Failure([&] { empty.SetBuffer(memory, 0); }));

    auto xml = std::make_shared<const XMLRegister::Data>(10, 'x');
    XMLRegister reg(0x70, xml);
    EXPECT_EQ(1u, reg.GetAccessMode());
    size = 10;
    char out[10];
    reg.Read(0, out, &size);
    EXPECT_EQ(Err(GC_ERR_ACCESS_DENIED, "Write access not permitted."), Failure([&] { reg.Write(0, out, &size); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid XML passed."),
              Failure([] { XMLRegister(0, std::make_shared<const XMLRegister::Data>()); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No XML passed."), Failure([] { XMLRegister(0, nullptr); }));
}

TEST(CallbackRegister, PositionsAreRelativeOrAbsolute)
{
    std::uint64_t seen = 0;
    auto slot = [&](std::uint64_t position, void*, size_t*, CallbackRegister&) { seen = position; };
    CallbackRegister relative(0x1000, 16, AccessReadWrite, false), absolute(0x1000, 16, AccessReadWrite, true);
    relative.GetReadSignal().Connect(slot);
    absolute.GetReadSignal().Connect(slot);
    std::uint8_t byte;
    size_t size = 1;
    relative.Read(5, &byte, &size);
    EXPECT_EQ(5u, seen);
    absolute.Read(5, &byte, &size);
    EXPECT_EQ(0x1005u, seen);
}

}
