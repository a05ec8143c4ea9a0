#include "base/BaseException.h"
#include "base/Info.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

using namespace QEL;
using namespace QEL::Base;

namespace {


std::vector<unsigned char> Bytes(const Info& info)
{
    size_t size = 0;
    info.Read(nullptr, &size);
    std::vector<unsigned char> bytes(size, 0xEE);
    info.Read(bytes.data(), &size);
    EXPECT_EQ(bytes.size(), size);
    return bytes;
}

// The three read rules hold for every class: size query, too small, big enough.
void CheckReadRules(const Info& info, INFO_DATATYPE type, size_t expectedSize)
{
    SCOPED_TRACE(type);
    EXPECT_EQ(type, info.GetType());
    EXPECT_EQ(expectedSize, info.GetSize());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No size passed."),
              Failure([&] { info.Read(nullptr, nullptr); }));
    size_t size = 0;
    info.Read(nullptr, &size);
    EXPECT_EQ(expectedSize, size);
    std::vector<unsigned char> buffer(expectedSize + 8, 0xEE);
    if (expectedSize > 0) {
        size = expectedSize - 1;
        EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Buffer too small."),
                  Failure([&] { info.Read(buffer.data(), &size); }));
        EXPECT_EQ(expectedSize - 1, size) << "size stays unchanged on failure";
        EXPECT_EQ(0xEE, buffer[0]) << "buffer stays untouched on failure";
    }
    size = buffer.size();
    info.Read(buffer.data(), &size);
    EXPECT_EQ(expectedSize, size);
    EXPECT_EQ(0xEE, buffer[expectedSize]) << "nothing written past the value";
}

TEST(Info, ReadRulesOfEveryClass)
{
    CheckReadRules(Int16Info(-2), INFO_DATATYPE_INT16, 2);
    CheckReadRules(UInt16Info(2), INFO_DATATYPE_UINT16, 2);
    CheckReadRules(Int32Info(-5), INFO_DATATYPE_INT32, 4);
    CheckReadRules(UInt32Info(5), INFO_DATATYPE_UINT32, 4);
    CheckReadRules(Int64Info(-7), INFO_DATATYPE_INT64, 8);
    CheckReadRules(UInt64Info(7), INFO_DATATYPE_UINT64, 8);
    CheckReadRules(Float64Info(1.5), INFO_DATATYPE_FLOAT64, 8);
    int target = 0;
    CheckReadRules(PtrInfo(&target), INFO_DATATYPE_PTR, sizeof(void*));
    CheckReadRules(Bool8Info(1), INFO_DATATYPE_BOOL8, 1);
    CheckReadRules(SizeTInfo(9), INFO_DATATYPE_SIZET, sizeof(size_t));
    CheckReadRules(PtrDiffTInfo(-9), INFO_DATATYPE_PTRDIFF, sizeof(ptrdiff_t));
    CheckReadRules(StringInfo("abc"), INFO_DATATYPE_STRING, 4);
    CheckReadRules(StringListInfo(std::vector<std::string>{"a", "bc"}), INFO_DATATYPE_STRINGLIST, 6);
    const unsigned char raw[] = {1, 2, 3};
    CheckReadRules(BufferInfo(raw, 3), INFO_DATATYPE_BUFFER, 3);
}

TEST(Info, FixedValuesAreCopiedExactly)
{
    EXPECT_EQ(std::vector<unsigned char>({0xFB, 0xFF, 0xFF, 0xFF}), Bytes(Int32Info(-5)));
    size_t size = 8;
    std::int32_t out[2] = {0, 0x11111111};
    Int32Info(42).Read(out, &size);
    EXPECT_EQ(4u, size);
    EXPECT_EQ(42, out[0]);
    EXPECT_EQ(0x11111111, out[1]);
    double d = 0;
    size = sizeof d;
    Float64Info(2.25).Read(&d, &size);
    EXPECT_EQ(2.25, d);
}

// A stream's values come as infos of their own width; the one-call record and
// the 8-byte registers take them as numbers.
TEST(Info, NumericValueTakesEveryFixedWidthAndNothingElse)
{
    EXPECT_EQ(0xABCDu, NumericValue(UInt16Info(0xABCD)));
    EXPECT_EQ(0xFFFFFFFBu, NumericValue(Int32Info(-5))) << "zero-extended, not sign-extended";
    EXPECT_EQ(1u, NumericValue(Bool8Info(1)));
    int target = 0;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&target), NumericValue(PtrInfo(&target))) << "4 bytes on a 32-bit board";
    EXPECT_EQ(0x0123456789ABCDEFull, NumericValue(UInt64Info(0x0123456789ABCDEFull)));
    double bits = 0;
    const std::uint64_t value = NumericValue(Float64Info(2.25));
    std::memcpy(&bits, &value, sizeof bits);
    EXPECT_EQ(2.25, bits);
    const Result notANumber = Err(GC_ERR_ERROR, "Unexpected info type retrieved.");
    EXPECT_EQ(notANumber, Failure([] { NumericValue(StringInfo("abc")); })) << "four bytes, but text";
    EXPECT_EQ(notANumber, Failure([] { NumericValue(StringInfo("abcdefghij")); }));
    EXPECT_EQ(notANumber, Failure([] { NumericValue(BufferInfo(std::vector<std::uint8_t>(8, 1))); }))
        << "eight bytes, but a buffer";
}

TEST(Info, Strings)
{
    EXPECT_EQ(1u, StringInfo("").GetSize());
    EXPECT_EQ(std::vector<unsigned char>({'a', 'b', 'c', 0}), Bytes(StringInfo("abc")));
    EXPECT_EQ("ab", StringInfo(std::string("ab\0cd", 5)).GetValue());
    const char field[4] = {'w', 'x', 'y', 'z'}; // no terminator
    EXPECT_EQ("wxy", StringInfo(field, 3).GetValue());
    EXPECT_EQ("w", StringInfo("w\0x", 3).GetValue());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No string passed."),
              Failure([] { StringInfo(nullptr, 3); }));
}

TEST(Info, StringLists)
{
    EXPECT_EQ(std::vector<unsigned char>({'a', 0, 'b', 'c', 0, 0}),
              Bytes(StringListInfo(std::vector<std::string>{"a", "bc"})));
    StringListInfo empty(std::vector<std::string>{});
    EXPECT_EQ(2u, empty.GetSize());
    EXPECT_EQ(std::vector<unsigned char>({0, 0}), Bytes(empty));
    EXPECT_EQ(std::vector<std::string>({"a"}), StringListInfo("a\0\0b", 4).GetValue());
    EXPECT_EQ(std::vector<std::string>({"a", "b"}), StringListInfo("\0a\0b", 4).GetValue());
    EXPECT_EQ(std::vector<std::string>({"x", "yz"}), StringListInfo("x\0yz", 4).GetValue());
    EXPECT_EQ(std::vector<std::string>({"ab"}), StringListInfo(std::vector<std::string>{std::string("ab\0c", 4)}).GetValue());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Emtpy strings are not supported."),
              Failure([] { StringListInfo(std::vector<std::string>{"a", ""}); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No string passed."),
              Failure([] { StringListInfo(nullptr, 1); }));
}

TEST(Info, Buffers)
{
    const unsigned char raw[] = {9, 8, 7};
    EXPECT_EQ(std::vector<unsigned char>({9, 8, 7}), Bytes(BufferInfo(raw, 3)));
    BufferInfo empty(raw, 0);
    size_t size = 17;
    empty.Read(nullptr, &size);
    EXPECT_EQ(0u, size);
    size = 17;
    unsigned char out[4];
    empty.Read(out, &size);
    EXPECT_EQ(17u, size) << "an empty buffer read leaves the size alone";
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No buffer passed."),
              Failure([] { BufferInfo(nullptr, 1); }));
}

TEST(Info, TransportLayerTypeNames)
{
    EXPECT_EQ("Mixed", TLTypeToString(0));
    EXPECT_EQ("Custom", TLTypeToString(1));
    EXPECT_EQ("U3V", TLTypeToString(8));
    EXPECT_EQ("CSI-2", TLTypeToString(11));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid TL type passed."),
              Failure([] { TLTypeToString(12); }));
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, Failure([] { TLTypeToString(-1); }).first);
}

TEST(Exception, MessageCarriesTheCodeAndTheTextStaysPlain)
{
    Exception e("Something failed.", GC_ERR_BUSY);
    EXPECT_EQ("Something failed. (Error code: -1022)", e.GetMessage());
    const System::Exception& plain = e;
    EXPECT_EQ("Something failed.", plain.GetText());
    EXPECT_EQ("Unknown exception.", System::Exception().GetMessage());
}

}
