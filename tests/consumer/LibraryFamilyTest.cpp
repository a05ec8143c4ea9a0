#include "ProducerLoader.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace {


TEST(LibraryFamily, EveryCallBeforeInitIsRefusedAndRecordsNothing)
{
    ProducerLoader producer;
    INFO_DATATYPE type = 0;
    size_t size = 64;
    char buffer[64];
    GC_ERROR code = 7;
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, producer.GCGetInfo(TL_INFO_VENDOR, &type, buffer, &size));
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, producer.GCGetLastError(&code, buffer, &size));
    EXPECT_EQ(7, code);
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, producer.GCCloseLib());

    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    EXPECT_EQ(Err(GC_ERR_SUCCESS, "No error occurred."), producer.LastError());
}

TEST(LibraryFamily, LastErrorSizeQueryAndTooSmallBufferKeepTheStoredError)
{
    ProducerLoader producer;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());

    GC_ERROR code = 1;
    size_t size = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCGetLastError(&code, nullptr, &size));
    EXPECT_EQ(19u, size);
    EXPECT_EQ(0, code);

    INFO_DATATYPE type = 0;
    size = 0;
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, producer.GCGetInfo(12345, &type, nullptr, &size));

    code = 99;
    size = 5;
    char text[64];
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL, producer.GCGetLastError(&code, text, &size));
    EXPECT_EQ(99, code) << "the code must not be written when the text does not fit";
    EXPECT_EQ(5u, size);
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Unsupported info requested."), producer.LastError());

    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, producer.GCGetLastError(nullptr, text, &size));
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, producer.GCGetLastError(&code, text, nullptr));
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, producer.LastError().first) << "a failing GCGetLastError records nothing";
}

TEST(LibraryFamily, LastErrorIsPerThread)
{
    ProducerLoader producer;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    size_t size = 0;
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, producer.GCGetInfo(TL_INFO_ID, nullptr, nullptr, &size));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No datatype passed."), producer.LastError());

    std::pair<GC_ERROR, std::string> other;
    std::thread([&] { other = producer.LastError(); }).join();
    EXPECT_EQ(Err(GC_ERR_SUCCESS, "No error occurred."), other);
}

TEST(LibraryFamily, DoubleInitDoubleCloseAndReinitialisation)
{
    ProducerLoader producer;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, producer.GCInitLib());
    EXPECT_EQ(Err(GC_ERR_RESOURCE_IN_USE, "Library already open."), producer.LastError());
    EXPECT_EQ("Lorun CSI-2 GenTL", producer.InfoString(TL_INFO_MODEL)) << "still usable after a refused init";

    EXPECT_EQ(GC_ERR_SUCCESS, producer.GCCloseLib());
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, producer.GCCloseLib());

    // Errors stored before the close are gone after a new init, on every thread.
    std::thread([&] {
        ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLibEx(1));
        size_t size = 0;
        producer.GCGetInfo(-5, nullptr, nullptr, &size);
        ASSERT_EQ(GC_ERR_SUCCESS, producer.GCCloseLib());
        ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
        EXPECT_EQ(GC_ERR_SUCCESS, producer.LastError().first);
    }).join();
    EXPECT_EQ(Err(GC_ERR_SUCCESS, "No error occurred."), producer.LastError());
}

TEST(LibraryFamily, InfoValuesAndTheirReadRules)
{
    ProducerLoader producer;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    EXPECT_EQ("7B0CEC30-6004-4F2D-9697-CD515749CBC6", producer.InfoString(TL_INFO_ID));
    EXPECT_EQ("Tesmar Lumetric Industries", producer.InfoString(TL_INFO_VENDOR));
    EXPECT_EQ("1.0.1", producer.InfoString(TL_INFO_VERSION));
    EXPECT_EQ("Custom", producer.InfoString(TL_INFO_TLTYPE));
    EXPECT_EQ("lorun_csi2.cti", producer.InfoString(TL_INFO_NAME));
    EXPECT_EQ(producer.Path(), producer.InfoString(TL_INFO_PATHNAME));
    EXPECT_EQ("Lorun CSI-2 GenTL Producer", producer.InfoString(TL_INFO_DISPLAYNAME));
    EXPECT_EQ("CSI-2", producer.InfoString(TL_INFO_CUSTOM_ID));

    INFO_DATATYPE type = 0;
    size_t size = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCGetInfo(TL_INFO_GENTL_VER_MINOR, &type, nullptr, &size));
    EXPECT_EQ(INFO_DATATYPE_UINT32, type);
    EXPECT_EQ(4u, size);
    uint32_t minor = 0;
    size = 3;
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL, producer.GCGetInfo(TL_INFO_GENTL_VER_MINOR, &type, &minor, &size));
    EXPECT_EQ(3u, size);
    uint64_t wide = 0;
    size = sizeof wide;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCGetInfo(TL_INFO_GENTL_VER_MINOR, &type, &wide, &size));
    EXPECT_EQ(5u, wide);
    EXPECT_EQ(4u, size);

    int32_t encoding = 0;
    size = sizeof encoding;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCGetInfo(TL_INFO_CHAR_ENCODING, &type, &encoding, &size));
    EXPECT_EQ(INFO_DATATYPE_INT32, type);
    EXPECT_EQ(1, encoding);

    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, producer.GCGetInfo(TL_INFO_VENDOR, &type, nullptr, nullptr));
    EXPECT_EQ("No size passed.", producer.LastError().second);
    char small[4];
    size = sizeof small;
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL, producer.GCGetInfo(TL_INFO_VENDOR, &type, small, &size));
    EXPECT_EQ(4u, size);
}

TEST(LibraryFamily, NullDatatypeIsRefusedUnlessTheSettingsTolerateIt)
{
    {
        ProducerLoader strict;
        ASSERT_EQ(GC_ERR_SUCCESS, strict.GCInitLib());
        size_t size = 0;
        EXPECT_EQ(GC_ERR_INVALID_PARAMETER, strict.GCGetInfo(TL_INFO_VENDOR, nullptr, nullptr, &size));
        EXPECT_EQ("No datatype passed.", strict.LastError().second);
    }
    ProducerLoader tolerant("<Settings><TolerateTypeNullptr> true </TolerateTypeNullptr></Settings>");
    ASSERT_EQ(GC_ERR_SUCCESS, tolerant.GCInitLib());
    size_t size = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, tolerant.GCGetInfo(TL_INFO_VENDOR, nullptr, nullptr, &size));
    std::vector<char> text(size);
    ASSERT_EQ(GC_ERR_SUCCESS, tolerant.GCGetInfo(TL_INFO_VENDOR, nullptr, text.data(), &size));
    EXPECT_STREQ("Tesmar Lumetric Industries", text.data());
}

TEST(LibraryFamily, SettingsChooseTheSystemDocumentAndBadSettingsKeepTheLibraryDown)
{
    {
        ProducerLoader producer("<Settings><SystemXMLFile>other.xml</SystemXMLFile></Settings>");
        std::ofstream(producer.File("other.xml"))
            << "<RegisterDescription SchemaMajorVersion='1' SchemaMinorVersion='0' SchemaSubMinorVersion='1' "
               "MajorVersion='2' MinorVersion='0' SubMinorVersion='0' ProductGuid='OTHER-GUID'/>";
        ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
        EXPECT_EQ("OTHER-GUID", producer.InfoString(TL_INFO_ID));
    }
    ProducerLoader broken("<Wrong/>");
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, broken.GCInitLib());
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, broken.GCInitLib()) << "a later call tries again and fails the same way";
}

TEST(LibraryFamily, TraceLinesReachTheLogFile)
{
    ProducerLoader producer("<Settings><LogFileName>trace.log</LogFileName></Settings>");
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    INFO_DATATYPE type = 0;
    size_t size = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCGetInfo(TL_INFO_VERSION, &type, nullptr, &size));
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, producer.GCGetInfo(77, &type, nullptr, &size));
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCCloseLib());

    std::string log = ReadFile(producer.File("trace.log"));
    EXPECT_NE(std::string::npos, log.find(": GCGetInfo called\n"));
    EXPECT_NE(std::string::npos, log.find(": GCInitLib called\n")) << log;
    EXPECT_NE(std::string::npos, log.find("  GCGetInfo: Input Parameter iInfoCmd = Int32 3 (0x00000003)\n"));
    EXPECT_NE(std::string::npos, log.find("  GCGetInfo: Input Parameter pBuffer = Nullpointer\n"));
    EXPECT_NE(std::string::npos, log.find("  GCGetInfo: Output Parameter piType = Pointer 0x"));
    EXPECT_NE(std::string::npos, log.find(" to Int32 1 (0x00000001)\n"));
    EXPECT_NE(std::string::npos, log.find(" to UInt32 6 (0x00000006)\n")) << "size of \"1.0.1\"";
    EXPECT_NE(std::string::npos, log.find("  GCGetInfo returned Int32 0 (0x00000000)\n"));
    EXPECT_NE(std::string::npos,
              log.find("  GCGetInfo returned Int32 -1003 (0xFFFFFC15) \"Unsupported info requested.\"\n"));
    EXPECT_NE(std::string::npos, log.find("  GCCloseLib returned Int32 0 (0x00000000)\n"));
}

// Many readers against a writer that keeps closing and reopening the library:
// every call is admitted or turned away cleanly, and a close waits for the
// bodies that are inside.
TEST(LibraryFamily, ConcurrentInfoCallsDuringInitCloseCycles)
{
    ProducerLoader producer;
    ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    std::atomic<bool> stop{false};
    std::atomic<long> succeeded{0}, refused{0}, unexpected{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 6; ++i)
        readers.emplace_back([&] {
            while (!stop) {
                INFO_DATATYPE type = 0;
                char text[64];
                size_t size = sizeof text;
                GC_ERROR rc = producer.GCGetInfo(TL_INFO_MODEL, &type, text, &size);
                if (rc == GC_ERR_SUCCESS && std::string(text) == "Lorun CSI-2 GenTL")
                    ++succeeded;
                else if (rc == GC_ERR_NOT_INITIALIZED)
                    ++refused;
                else
                    ++unexpected;
            }
        });
    // At least 300 cycles, and on until some readers got in between them.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (int cycle = 0; (cycle < 300 || succeeded == 0) && std::chrono::steady_clock::now() < limit; ++cycle) {
        ASSERT_EQ(GC_ERR_SUCCESS, producer.GCCloseLib());
        ASSERT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
        if (cycle % 50 == 0)
            std::this_thread::yield();
    }
    stop = true;
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(0, unexpected.load());
    EXPECT_GT(succeeded.load(), 0);
}

}
