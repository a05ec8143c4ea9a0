#include "entry/BasicTransportLayer.h"
#include "entry/CallTrace.h"
#include "support/Logger.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>

using namespace QEL;
using namespace QEL::Base;

namespace {

class MemoryLogger : public Tools::Logger {
public:
    void Write(const std::string& message) override { lines.push_back(message); }
    std::vector<std::string> lines;
};

// Answers GCGetLastError in a chosen way; nothing else is called by the trace.
class FakeTransportLayer : public BasicTransportLayer {
public:
    std::shared_ptr<Library> CreateLibrary(uint32_t) override { return nullptr; }
    GC_ERROR GCGetLastError(GC_ERROR* code, char* text, size_t* size) override
    {
        ++calls;
        if (failAt == calls)
            return GC_ERR_ERROR;
        *code = GC_ERR_BUSY;
        *size = std::strlen("Busy.") + 1;
        if (text)
            std::strcpy(text, "Busy.");
        return GC_ERR_SUCCESS;
    }
    int calls = 0;
    int failAt = 0;
};

class Trace : public ::testing::Test {
protected:
    void SetUp() override { Tools::Logger::Set(logger); }
    void TearDown() override { Tools::Logger::Clear(); }
    std::shared_ptr<MemoryLogger> logger = std::make_shared<MemoryLogger>();
};

TEST_F(Trace, ValueForms)
{
    EXPECT_EQ("Int32 -1002 (0xFFFFFC16)", TraceParam::Int32("x", -1002).Format());
    EXPECT_EQ("UInt32 255 (0x000000FF)", TraceParam::UInt32("x", 255).Format());
    EXPECT_EQ("UInt32 4294967296 (0x100000000)", TraceParam::UInt64("x", 1ull << 32).Format());
    EXPECT_EQ("Nullpointer", TraceParam::Pointer("x", nullptr).Format());
    EXPECT_EQ("Pointer 0x1a2b", TraceParam::Pointer("x", reinterpret_cast<void*>(0x1a2b)).Format());
    const char text[] = "\xF0z";
    std::string prefix = TraceParam::Pointer("x", text).Format() + " to ";
    EXPECT_EQ(prefix + "Int8 -16 (0xF0)", TraceParam::String("x", text).Format());
    EXPECT_EQ(prefix + "<unknown value>", TraceParam::Data("x", text).Format());
    bool8_t flag = 1;
    EXPECT_EQ(TraceParam::Pointer("x", &flag).Format() + " to Bool true", TraceParam::Bool("x", &flag).Format());
    // The widest size_t value of the target, whatever its width.
    size_t size = static_cast<size_t>(0x123456789ull);
    EXPECT_EQ(TraceParam::Pointer("x", &size).Format() +
                  (sizeof size == 8 ? " to UInt32 4886718345 (0x123456789)" : " to UInt32 591751049 (0x23456789)"),
              TraceParam::Size("x", &size).Format());
    int32_t value = -1;
    EXPECT_EQ(TraceParam::Pointer("x", &value).Format() + " to Int32 -1 (0xFFFFFFFF)",
              TraceParam::Int32Ptr("x", &value).Format());
    void* handle = reinterpret_cast<void*>(0x100);
    EXPECT_EQ(TraceParam::Pointer("x", &handle).Format() + " to Pointer 0x100", TraceParam::Handle("x", &handle).Format());
    for (auto p : {TraceParam::String("x", nullptr), TraceParam::Size("x", nullptr), TraceParam::Handle("x", nullptr)})
        EXPECT_EQ("Nullpointer", p.Format());
}

TEST_F(Trace, AFailedCallsOutputsAreNotRead)
{
    // Memory the call never wrote: the trace names it without reading it.
    std::int32_t neverWritten = 0x5A5A5A5A;
    void* handle = reinterpret_cast<void*>(0x5A5A);
    char text[1] = {'Z'}; // a buffer of zero usable bytes
    size_t size = 0;
    FakeTransportLayer tl;
    CallTrace("F", {}).Finish(GC_ERR_BUFFER_TOO_SMALL, &tl,
                              {TraceParam::Int32Ptr("piValue", &neverWritten), TraceParam::Handle("phHandle", &handle),
                               TraceParam::String("pBuffer", text), TraceParam::Size("piSize", &size)});
    const auto n = logger->lines.size();
    ASSERT_GE(n, 4u);
    EXPECT_NE(std::string::npos, logger->lines[n - 4].find("piValue = Pointer 0x"));
    EXPECT_NE(std::string::npos, logger->lines[n - 4].find(" to <not written>"));
    EXPECT_EQ(std::string::npos, logger->lines[n - 4].find("0x5A5A5A5A")) << logger->lines[n - 4];
    EXPECT_NE(std::string::npos, logger->lines[n - 3].find(" to <not written>"));
    EXPECT_NE(std::string::npos, logger->lines[n - 2].find(" to <not written>")) << "no byte of the buffer is read";
    EXPECT_NE(std::string::npos, logger->lines[n - 1].find(" to UInt32 0 (0x00000000)")) << "a size is in and out";
}

TEST_F(Trace, LinesOfASuccessfulAndAFailingCall)
{
    size_t size = 8;
    CallTrace trace("GCReadPort", {TraceParam::UInt64("iAddress", 16), TraceParam::Size("piSize", &size)});
    size = 4;
    trace.Finish(GC_ERR_SUCCESS, nullptr, {TraceParam::Size("piSize", &size)});
    ASSERT_EQ(5u, logger->lines.size());
    EXPECT_EQ("GCReadPort called", logger->lines[0]);
    EXPECT_EQ("  GCReadPort: Input Parameter iAddress = UInt32 16 (0x00000010)", logger->lines[1]);
    EXPECT_NE(std::string::npos, logger->lines[2].find(" to UInt32 8 (0x00000008)"));
    EXPECT_EQ("  GCReadPort returned Int32 0 (0x00000000)", logger->lines[3]);
    EXPECT_EQ(0u, logger->lines[4].find("  GCReadPort: Output Parameter piSize = Pointer 0x"));
    EXPECT_NE(std::string::npos, logger->lines[4].find(" to UInt32 4 (0x00000004)"));

    FakeTransportLayer tl;
    logger->lines.clear();
    CallTrace("F", {}).Finish(GC_ERR_BUSY, &tl, {});
    EXPECT_EQ("  F returned Int32 -1022 (0xFFFFFC02) \"Busy.\"", logger->lines.back());
    tl.calls = 0;
    tl.failAt = 1;
    CallTrace("F", {}).Finish(GC_ERR_BUSY, &tl, {});
    EXPECT_EQ("  F returned Int32 -1022 (0xFFFFFC02) \"<could not get size of error text>\"", logger->lines.back());
    tl.calls = 0;
    tl.failAt = 2;
    CallTrace("F", {}).Finish(GC_ERR_BUSY, &tl, {});
    EXPECT_EQ("  F returned Int32 -1022 (0xFFFFFC02) \"<could not get error text>\"", logger->lines.back());
    CallTrace("F", {}).Finish(GC_ERR_NOT_INITIALIZED, nullptr, {});
    EXPECT_EQ("  F returned Int32 -1002 (0xFFFFFC16) \"<could not access transport layer>\"", logger->lines.back());
}

TEST_F(Trace, NothingIsWrittenWithoutALogger)
{
    Tools::Logger::Clear();
    CallTrace trace("F", {TraceParam::Int32("a", 1)});
    Tools::Logger::Set(logger); // installed mid-call: the call keeps its first answer
    trace.Finish(GC_ERR_SUCCESS, nullptr, {});
    EXPECT_TRUE(logger->lines.empty());
}

}
