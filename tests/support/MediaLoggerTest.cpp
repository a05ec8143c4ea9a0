#include "base/Info.h"
#include "support/Helper.h"
#include "support/MediaLogger.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <boost/filesystem.hpp>

#include <chrono>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

using namespace QEL;

namespace {


TEST(MediaLogFormats, Dumps)
{
    const std::string letters(16, 'A');
    std::string expected = "Dump buffer: length=16\n0x0000 : ";
    for (int i = 0; i < 16; ++i)
        expected += "0x41 ";
    expected += letters + "\n0x0010 : ";
    EXPECT_EQ(expected, CSITools::FormatDump(letters.data(), 16));

    const std::uint8_t zeros[3] = {};
    EXPECT_EQ("Dump buffer: length=3\n0x0000 : 0x00 0x00 0x00 ; ...", CSITools::FormatDump(zeros, 3));
    EXPECT_EQ("Dump buffer: length=0\n0x0000 : ", CSITools::FormatDump(zeros, 0));
    EXPECT_EQ("", CSITools::FormatDump(nullptr, 4));
    const std::uint8_t mixed[2] = {0x7f, 0x20};
    EXPECT_EQ("Dump buffer: length=2\n0x0000 : 0x7f 0x20 ; . ", CSITools::FormatDump(mixed, 2));
}

TEST(MediaLogFormats, PacketsAndTime)
{
    std::uint8_t packet[32] = {'E', 'V', 'T', 0};
    packet[6] = 0x0C;           // command
    packet[16] = 0xFF;          // timestamp low byte
    EXPECT_EQ("", CSITools::FormatPacket(packet, 31));
    std::string text = CSITools::FormatPacket(packet, 32);
    EXPECT_EQ(0u, text.find("Prefix    = EVT\nflags     = 0 = 0x0\ncommand   = 12 = 0xc\n"));
    EXPECT_NE(std::string::npos, text.find("timeStamp = 255 = 0xff\nframeID   = 0 = 0x0\n"));
    EXPECT_TRUE(std::regex_match(CSITools::FormatCurrentTime(), std::regex(R"(\d{1,2}:\d{2}:\d{2}\.\d{3,6})")));
}

class MediaLogFile : public ::testing::Test {
protected:
    MediaLogFile() : path((boost::filesystem::temp_directory_path() / boost::filesystem::unique_path()).string()) {}
    ~MediaLogFile() override { boost::filesystem::remove(path); }
    std::string path;
};

TEST_F(MediaLogFile, MessagesAndDumpsReachTheFileInOrder)
{
    {
        CSITools::Logger logger(path, false);
        logger.Log("first");
        const std::uint8_t bytes[3] = {1, 2, 3};
        logger.Dump("frame", bytes, 3);
        logger.Dump("nothing", bytes, 0);
        // Dumps have a writer of their own: "last" is logged once the dump is in the file.
        EXPECT_TRUE(Eventually([&] { return ReadFile(path).find(": frameDump buffer: length=3") != std::string::npos; }));
        logger.Log("last");
    }
    std::string log = ReadFile(path);
    auto started = log.find("+++++ logger started. +++++");
    auto first = log.find(": first\n");
    auto dump = log.find(": frameDump buffer: length=3\n0x0000 : 0x01 0x02 0x03 ; ...\n");
    auto last = log.find(": last\n");
    auto stopped = log.find("***** logger stopped. *****");
    ASSERT_NE(std::string::npos, dump) << log;
    EXPECT_LT(started, first);
    EXPECT_LT(first, dump);
    EXPECT_LT(dump, last);
    EXPECT_LT(last, stopped);
    EXPECT_EQ(std::string::npos, log.find("nothing")) << "a dump of length 0 queues nothing";
}

TEST_F(MediaLogFile, ShutdownWritesWhatIsStillQueued)
{
    {
        CSITools::Logger logger(path, false);
        const std::uint8_t bytes[2] = {0xAA, 0xBB};
        // Far more than the workers drain before the destructor stops them.
        for (int i = 0; i < 200; ++i) {
            logger.Log("message " + std::to_string(i));
            logger.Dump("dump " + std::to_string(i), bytes, 2);
        }
    }
    std::string log = ReadFile(path);
    auto dumpExit = log.find("***** Dump logger exiting, ");
    auto dumpStop = log.find("***** Dump logger stopped. *****");
    ASSERT_NE(std::string::npos, dumpExit);
    ASSERT_LT(dumpExit, dumpStop);
    std::string leftDumps = log.substr(dumpExit, dumpStop - dumpExit);
    EXPECT_NE(std::string::npos, leftDumps.find("\nDump buffer: length=2\n0x0000 : 0xaa 0xbb ; ..\n"))
        << "queued dumps stand without their text lines";
    EXPECT_EQ(std::string::npos, leftDumps.find(": dump "));
    EXPECT_NE(std::string::npos, log.find(": message 199\n")) << "every message is written before the end";
    EXPECT_LT(log.find(": message 199\n"), log.find("***** logger stopped. *****"));
}

// A log in a folder that does not exist is off: its calls neither throw nor
// make the folder, and its workers still stop.
TEST(MediaLog, UnopenablePathRunsSilently)
{
    const std::string folder = "/nonexistent-folder-of-lorun-tests";
    EXPECT_NO_THROW({
        CSITools::Logger logger(folder + "/media.log", false);
        logger.Log("dropped");
        const char byte = 1;
        logger.Dump("dropped", &byte, 1);
    });
    struct stat status {};
    EXPECT_NE(0, ::stat(folder.c_str(), &status)) << "nothing made";
}

}

namespace {

TEST(Helper, SetInfoStoresTypedInfosAndReplaces)
{
    using Infos = std::map<std::int32_t, QEL::Base::InfoPtr>;
    auto infos = std::make_shared<Infos>();
    QEL::CSITools::Helper::SetInfo<QEL::Base::UInt64Info>(infos, 16, std::uint64_t{42});
    QEL::CSITools::Helper::SetInfo<QEL::Base::SizeTInfo>(infos, 10, std::size_t{640});
    ASSERT_EQ(2u, infos->size());
    EXPECT_EQ(INFO_DATATYPE_UINT64, infos->at(16)->GetType());
    EXPECT_EQ(INFO_DATATYPE_SIZET, infos->at(10)->GetType()) << "the type asked for, not the value's";
    QEL::CSITools::Helper::SetInfo<QEL::Base::UInt64Info>(infos, 16, std::uint64_t{43});
    std::uint64_t value = 0;
    std::size_t size = sizeof value;
    infos->at(16)->Read(&value, &size);
    EXPECT_EQ(43u, value) << "replaced";
    try {
        QEL::CSITools::Helper::SetInfo<QEL::Base::UInt64Info>(std::shared_ptr<Infos>(), 16, std::uint64_t{1});
        FAIL() << "a null map was taken";
    } catch (const QEL::Base::Exception& e) {
        EXPECT_EQ(GC_ERR_INVALID_PARAMETER, e.GetCode());
        EXPECT_EQ("No infos map passed.", e.GetText());
    }
}

}
