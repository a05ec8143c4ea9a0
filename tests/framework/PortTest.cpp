#include "TestModule.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace TestStack;

namespace {

class Port : public ::testing::Test, public Opened {
protected:
    GC_ERROR Read(std::uint64_t address, void* buffer, size_t size, size_t* done = nullptr)
    {
        size_t n = size;
        GC_ERROR rc = tl.GCReadPort(handle, address, buffer, &n);
        if (done)
            *done = n;
        return rc;
    }
    GC_ERROR Write(std::uint64_t address, const void* buffer, size_t size, size_t* done = nullptr)
    {
        size_t n = size;
        GC_ERROR rc = tl.GCWritePort(handle, address, buffer, &n);
        if (done)
            *done = n;
        return rc;
    }
    std::uint32_t ReadWord(std::uint64_t address)
    {
        std::uint32_t value = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, Read(address, &value, 4));
        return value;
    }
};

TEST_F(Port, ReadsSpanAdjacentRegistersAndParts)
{
    ASSERT_NE(nullptr, handle);
    std::uint32_t both[2] = {};
    size_t done = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, Read(kValueA, both, 8, &done));
    EXPECT_EQ(8u, done);
    EXPECT_EQ(0x11223344u, both[0]);
    EXPECT_EQ(5u, both[1]);

    std::uint16_t middle = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, Read(kValueA + 1, &middle, 2));
    EXPECT_EQ(0x2233, middle);
}

TEST_F(Port, GapsAndInaccessibleRegistersEndAnAccess)
{
    std::uint8_t bytes[16];
    // The write-only register at 0x1008 ends the span: it cannot be read.
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, Read(kValueB, bytes, 8));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Register not accessible."), LastError());
    EXPECT_EQ(GC_ERR_INVALID_ADDRESS, Read(kText - 4, bytes, 8)) << "a read that begins in a gap";
    EXPECT_EQ(Err(GC_ERR_INVALID_ADDRESS, "Invalid address passed."), LastError());
    EXPECT_EQ(GC_ERR_INVALID_ADDRESS, Read(kInfo + 4, bytes, 8)) << "runs past the end into a gap";
    EXPECT_EQ(GC_ERR_INVALID_ADDRESS, Read(0x7000000, bytes, 4)) << "beyond every register";
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, Read(kHidden, bytes, 4));
    EXPECT_EQ(GC_ERR_ACCESS_DENIED, Write(kHidden, bytes, 4));
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, Read(0xFFFFFFFFFFFFFFF0ull, bytes, 32));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid address and size passed."), LastError());
    size_t zero = 0;
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, tl.GCReadPort(handle, kValueA, bytes, &zero));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."), LastError());
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, tl.GCReadPort(handle, kValueA, nullptr, &zero));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No buffer passed."), LastError());
}

TEST_F(Port, PartialWritesMergeAndRefusalsBecomeInvalidValues)
{
    const std::uint16_t low = 0xBEEF;
    ASSERT_EQ(GC_ERR_SUCCESS, Write(kValueA, &low, 2));
    EXPECT_EQ(0x1122BEEFu, ReadWord(kValueA));

    const std::uint32_t tooLarge = 5000;
    EXPECT_EQ(GC_ERR_INVALID_VALUE, Write(kValueB, &tooLarge, 4));
    EXPECT_EQ(Err(GC_ERR_INVALID_VALUE, "Value cannot be written to port."), LastError());
    EXPECT_EQ(5u, ReadWord(kValueB)) << "a refused value leaves the old one";

    // A two-register write whose second part is refused: the first part stays written.
    const std::uint32_t pair[2] = {1, 5000};
    EXPECT_EQ(GC_ERR_INVALID_VALUE, Write(kValueA, pair, 8));
    EXPECT_EQ(1u, ReadWord(kValueA));

    const std::uint32_t ok[2] = {2, 999};
    size_t done = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, Write(kValueA, ok, 8, &done));
    EXPECT_EQ(8u, done);
    EXPECT_EQ(999u, ReadWord(kValueB));
}

TEST_F(Port, SecondRegisterFailingAfterTheFirstDeliveredGivesAShortRead)
{
    // 0x3000 mirrors an info value; the callback register follows only after a gap,
    // so use the write side: the callback register takes 4 bytes per call.
    const std::uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    size_t done = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, Write(kCallback, bytes, 8, &done));
    EXPECT_EQ(4u, done) << "an incomplete access after some bytes is a short access, not a failure";
    std::uint8_t back[4] = {};
    ASSERT_EQ(GC_ERR_SUCCESS, Read(kCallback, back, 4));
    EXPECT_EQ(0, std::memcmp(bytes, back, 4));
}

TEST_F(Port, StringInfoCallbackAndBufferRegisters)
{
    char text[256];
    ASSERT_EQ(GC_ERR_SUCCESS, Read(kText, text, sizeof text));
    EXPECT_STREQ("abc", text);
    EXPECT_EQ(0, text[255]);
    ASSERT_EQ(GC_ERR_SUCCESS, Write(kText, "xy", 3));
    ASSERT_EQ(GC_ERR_SUCCESS, Read(kText, text, sizeof text));
    EXPECT_STREQ("xy", text);

    system->infoValue = 0x0102030405060708ull;
    std::uint32_t low = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, Read(kInfo, &low, 4));
    EXPECT_EQ(0x05060708u, low) << "the pre-read slot refreshes the value";
    EXPECT_EQ(GC_ERR_ACCESS_DENIED, Write(kInfo, &low, 4));

    std::uint8_t bytes[8] = {};
    EXPECT_EQ(GC_ERR_SUCCESS, Read(kBuffer + 40, bytes, 8));
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, Read(kBuffer + 60, bytes, 4)) << "past the buffer, inside the range";
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid address passed."), LastError());
}

TEST_F(Port, StackedAccessCountsCompletedEntries)
{
    std::uint32_t a = 0, b = 0, c = 0;
    PORT_REGISTER_STACK_ENTRY reads[] = {{kValueA, &a, 4}, {kValueB, &b, 4}, {kInfo, &c, 4}};
    size_t count = 3;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCReadPortStacked(handle, reads, &count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0x11223344u, a);
    EXPECT_EQ(42u, c);

    std::uint32_t fine = 10, bad = 5000;
    PORT_REGISTER_STACK_ENTRY writes[] = {{kValueA, &fine, 4}, {kValueB, &bad, 4}, {kValueA, &fine, 4}};
    count = 3;
    EXPECT_EQ(GC_ERR_INVALID_VALUE, tl.GCWritePortStacked(handle, writes, &count));
    EXPECT_EQ(1u, count);

    count = 3;
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, tl.GCReadPortStacked(handle, nullptr, &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No register stack entries passed."), LastError());
}

TEST_F(Port, InfoTableAndURLs)
{
    auto boolInfo = [&](PORT_INFO_CMD cmd) {
        INFO_DATATYPE type = 0;
        bool8_t value = 9;
        size_t size = 1;
        EXPECT_EQ(GC_ERR_SUCCESS, tl.GCGetPortInfo(handle, cmd, &type, &value, &size));
        EXPECT_EQ(INFO_DATATYPE_BOOL8, type);
        return value;
    };
    const bool8_t little = QEL::System::IsHostBigEndian() ? 0 : 1;
    EXPECT_EQ(little, boolInfo(PORT_INFO_LITTLE_ENDIAN));
    EXPECT_EQ(1 - little, boolInfo(PORT_INFO_BIG_ENDIAN));
    EXPECT_EQ(1, boolInfo(PORT_INFO_ACCESS_READ));
    EXPECT_EQ(1, boolInfo(PORT_INFO_ACCESS_WRITE));
    EXPECT_EQ(0, boolInfo(PORT_INFO_ACCESS_NA));
    EXPECT_EQ(0, boolInfo(PORT_INFO_ACCESS_NI));
    INFO_DATATYPE type = 0;
    size_t size = 0;
    EXPECT_EQ(GC_ERR_SUCCESS, tl.GCGetPortInfo(handle, PORT_INFO_PORTNAME, &type, nullptr, &size));
    EXPECT_EQ(7u, size);
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, tl.GCGetPortInfo(handle, 99, &type, nullptr, &size));

    uint32_t count = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCGetNumPortURLs(handle, &count));
    EXPECT_EQ(2u, count);
    size = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCGetPortURL(handle, nullptr, &size));
    std::vector<char> list(size);
    size_t small = size - 1;
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL, tl.GCGetPortURL(handle, list.data(), &small));
    EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Size too small."), LastError());
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCGetPortURL(handle, list.data(), &size));
    std::string first(list.data());
    std::string second(list.data() + first.size() + 1);
    EXPECT_EQ("local:Test_System_1_2_3.xml;10000;A4?SchemaVersion=1.0.1", first);
    EXPECT_EQ("file:///opt/xml/Other%20File.zip?SchemaVersion=1.1", second);
    EXPECT_EQ(first.size() + second.size() + 3, size);
    EXPECT_EQ('\0', list.back());
}

TEST_F(Port, URLInfo)
{
    auto int32Info = [&](uint32_t index, URL_INFO_CMD cmd, GC_ERROR expected = GC_ERR_SUCCESS) {
        INFO_DATATYPE type = 0;
        int32_t value = -1;
        size_t size = sizeof value;
        EXPECT_EQ(expected, tl.GCGetPortURLInfo(handle, index, cmd, &type, &value, &size)) << cmd;
        return value;
    };
    EXPECT_EQ(1, int32Info(0, URL_INFO_SCHEMA_VER_MAJOR));
    EXPECT_EQ(0, int32Info(0, URL_INFO_SCHEMA_VER_MINOR));
    EXPECT_EQ(2, int32Info(0, URL_INFO_FILE_VER_MINOR));
    EXPECT_EQ(3, int32Info(0, URL_INFO_FILE_VER_SUBMINOR));
    int32Info(1, URL_INFO_FILE_VER_MAJOR, GC_ERR_NOT_AVAILABLE);
    int32Info(0, URL_INFO_FILE_SHA1_HASH, GC_ERR_NOT_IMPLEMENTED);
    int32Info(2, URL_INFO_URL, GC_ERR_INVALID_INDEX);
    EXPECT_EQ(Err(GC_ERR_INVALID_INDEX, "Invalid URL selected."), LastError());

    INFO_DATATYPE type = 0;
    std::uint64_t address = 0;
    size_t size = 8;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCGetPortURLInfo(handle, 0, 1001, &type, &address, &size));
    EXPECT_EQ(kXML, address);
    size = 8;
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, tl.GCGetPortURLInfo(handle, 1, 1002, &type, &address, &size));
    bool8_t zip = 0;
    size = 1;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCGetPortURLInfo(handle, 1, 1003, &type, &zip, &size));
    EXPECT_EQ(1, zip);
    char name[64];
    size = sizeof name;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCGetPortURLInfo(handle, 1, URL_INFO_FILENAME, &type, name, &size));
    EXPECT_STREQ("/opt/xml/Other File.zip", name);

    // The embedded document can be read through the port at the address the URL names.
    std::vector<char> xml(0xA4 + 1, 0);
    size = 0xA4;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCReadPort(handle, kXML, xml.data(), &size));
    EXPECT_EQ(0u, std::string(xml.data()).find("<RegisterDescription"));
}

TEST_F(Port, ClosedModuleIsNotAvailable)
{
    system->Close();
    std::uint32_t value = 0;
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, Read(kValueA, &value, 4));
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Module is not available."), LastError());
    size_t size = 0;
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, tl.GCGetPortURL(handle, nullptr, &size));
    // A new TLOpen replaces the closed System, which then dies with its handle.
    TL_HANDLE again = nullptr;
    std::weak_ptr<TestSystem> old = system;
    system.reset();
    ASSERT_EQ(GC_ERR_SUCCESS, tl.TLOpen(&again));
    EXPECT_TRUE(old.expired());
    EXPECT_EQ(handle, again) << "the new object takes the lowest free position";
}

}
