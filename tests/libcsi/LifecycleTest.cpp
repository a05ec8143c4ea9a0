#include "libcsi/Config.h"
#include "libcsi/Log.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

using namespace QEL::LibCSIImpl;
namespace fs = boost::filesystem;

namespace {

class ConfigFolder : public ::testing::Test {
protected:
    ConfigFolder() : folder(fs::temp_directory_path() / fs::unique_path("libcsi-%%%%-%%%%")) { fs::create_directories(folder); }
    ~ConfigFolder() override { fs::remove_all(folder); }
    void Write(const std::string& name, const std::string& text) { std::ofstream((folder / name).string()) << text; }
    Config Load()
    {
        Config config;
        config.Load(folder.string(), "libcsi.so");
        return config;
    }
    fs::path folder;
};

TEST_F(ConfigFolder, NoFileRunsOnDefaults)
{
    Config config = Load();
    EXPECT_EQ(3, config.logLevel);
    EXPECT_EQ(192u, config.ipuXInc);
    EXPECT_TRUE(config.enableFdtpPrioIncrease);
    EXPECT_FALSE(fs::exists(folder / "libcsi.cfg")) << "nothing is written without a file or a marker";
}

TEST_F(ConfigFolder, EmptyFileOrMarkerGiveAFullFileOfDefaults)
{
    Write("libcsi.cfg", "");
    EXPECT_EQ(3, Load().logLevel);
    std::string text = ReadFile((folder / "libcsi.cfg").string());
    EXPECT_EQ(0u, text.find("log_level=3\n"));
    EXPECT_NE(std::string::npos, text.find("enable_fdtp_prio_increase=1\n"));
    EXPECT_NE(std::string::npos, text.find("num_frame_copy_threads=1\n"));

    fs::remove(folder / "libcsi.cfg");
    Write("libcsi_log_enable", "anything");
    Load();
    EXPECT_TRUE(fs::exists(folder / "libcsi.cfg"));
}

TEST_F(ConfigFolder, MissingKeysTakeTheirFileDefaultsAndTheFileIsNormalised)
{
    Write("libcsi.cfg", "num_dump_frames=2\nipu_x_inc=64\nenable_userptr=true\ndump_start_frame_number=x\n");
    Config config = Load();
    EXPECT_EQ(0, config.logLevel) << "a file without the key means no logging";
    EXPECT_EQ(2u, config.numDumpFrames);
    EXPECT_EQ(64u, config.ipuXInc);
    EXPECT_TRUE(config.enableUserptr);
    EXPECT_EQ(0u, config.dumpStartFrameNumber) << "a value that does not parse";
    config.WriteBack();
    std::string text = ReadFile((folder / "libcsi.cfg").string());
    EXPECT_EQ(17, std::count(text.begin(), text.end(), '\n'));
    EXPECT_NE(std::string::npos, text.find("enable_userptr=1\n"));
    EXPECT_LT(text.find("log_level"), text.find("num_frame_copy_threads")) << "keys in their order";
}

TEST_F(ConfigFolder, ARecordReloadsFromItsOwnFolder)
{
    Write("libcsi.cfg", "log_level = 5\n");
    Config config;
    config.directory = folder.string();
    config.moduleName = "libcsi.so";
    config.Load(config.directory, config.moduleName);
    EXPECT_EQ(folder.string(), config.directory);
    EXPECT_EQ("libcsi.so", config.moduleName);
    EXPECT_EQ(5, config.logLevel) << "the file in that folder was read";
}

TEST_F(ConfigFolder, LogLevelIsClamped)
{
    Write("libcsi.cfg", "log_level=9\n");
    EXPECT_EQ(5, Load().logLevel);
    Write("libcsi.cfg", "log_level=-1\n");
    EXPECT_EQ(0, Load().logLevel);
}

// The log file takes one million entries, then one closing line, then nothing.
TEST_F(ConfigFolder, LogFileStopsAfterOneMillionEntries)
{
    Config& config = TheConfig();
    const Config saved = config;
    config.directory = folder.string();
    config.logLevel = 2;
    ResetLogFile();
    // Every entry goes to stderr as well; a million of them would bury the test output.
    std::fflush(stderr);
    const int savedStderr = ::dup(STDERR_FILENO);
    const int devNull = ::open("/dev/null", O_WRONLY);
    ASSERT_GE(devNull, 0);
    ::dup2(devNull, STDERR_FILENO);
    ::close(devNull);
    for (int entry = 1; entry <= 1000002; ++entry)
        LogEntry(TierError, 7, "entry %d\n", entry);
    const std::uint64_t counted = LogFileEntries();
    ::dup2(savedStderr, STDERR_FILENO);
    ::close(savedStderr);
    ResetLogFile();
    config = saved;

    EXPECT_EQ(1000001u, counted);
    std::ifstream log((folder / "libcsi.log").string());
    std::string line, last;
    std::uint64_t lines = 0;
    while (std::getline(log, line)) {
        ++lines;
        if (lines == 1000000)
            last = line;
    }
    EXPECT_EQ(1000001u, lines);
    EXPECT_NE(std::string::npos, last.find("L:00007 ")) << last;
    EXPECT_NE(std::string::npos, last.find(" entry 1000000")) << last;
    EXPECT_EQ("Maximum log entries reached", line) << "the closing line, and nothing after it";
}

TEST(Lifecycle, InitDeinitAndCallbacks)
{
    // Four words and not one more: the guards on both sides stay as they were.
    std::uint32_t guarded[6] = {7, 9, 9, 9, 9, 7};
    EXPECT_EQ(LIBCSI_OK, libcsi_get_version(guarded + 1));
    EXPECT_EQ((std::vector<std::uint32_t>{7, 1, 1, 0, 0, 7}), std::vector<std::uint32_t>(guarded, guarded + 6));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_version(nullptr));

    EXPECT_EQ(LIBCSI_NOT_INITIALIZED, libcsi_deinit());
    EXPECT_EQ(LIBCSI_NOT_INITIALIZED, libcsi_register_report_callback([](void*, const char*) {}, nullptr));
    ASSERT_EQ(LIBCSI_OK, libcsi_init());
    EXPECT_EQ(LIBCSI_OK, libcsi_init()) << "a second init is no error";

    struct Reports {
        std::mutex mutex;
        std::vector<std::string> lines;
    } reports;
    auto collect = [](void* context, const char* text) {
        auto* r = static_cast<Reports*>(context);
        std::lock_guard<std::mutex> lock(r->mutex);
        r->lines.push_back(text);
    };
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_register_report_callback(nullptr, nullptr));
    ASSERT_EQ(LIBCSI_OK, libcsi_register_report_callback(collect, &reports));
    EXPECT_EQ(LIBCSI_ALREADY_SET, libcsi_register_report_callback(collect, nullptr));
    EXPECT_EQ(LIBCSI_OK, libcsi_deregister_report_callback());
    ASSERT_EQ(LIBCSI_OK, libcsi_register_report_callback(collect, &reports)) << "free again after deregistering";

    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_register_discovery_callback(nullptr, nullptr));
    ASSERT_EQ(LIBCSI_OK, libcsi_register_discovery_callback([](void*, const char*, bool) {}, nullptr));
    EXPECT_EQ(LIBCSI_ALREADY_SET, libcsi_register_discovery_callback([](void*, const char*, bool) {}, nullptr));
    EXPECT_EQ(LIBCSI_OK, libcsi_deregister_discovery_callback());
    EXPECT_EQ(LIBCSI_OK, libcsi_deregister_report_callback());
    EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
    EXPECT_EQ(LIBCSI_NOT_INITIALIZED, libcsi_deregister_report_callback());
}

}

namespace {

// Files libcsi writes beside itself never follow a link planted in their place.
TEST_F(ConfigFolder, ALinkPlantedInPlaceOfTheConfigurationIsNotWrittenThrough)
{
    const fs::path victim = folder / "victim.txt";
    std::ofstream(victim.string()) << "precious";
    fs::create_symlink(victim, folder / "libcsi.cfg");
    Write("libcsi_log_enable", "");
    Config config = Load();
    config.WriteBack();
    EXPECT_EQ("precious", ReadFile(victim.string()));
    EXPECT_TRUE(fs::is_symlink(folder / "libcsi.cfg"));

    // A new file gets no group or world write permission.
    fs::remove(folder / "libcsi.cfg");
    Load();
    struct stat status {};
    ASSERT_EQ(0, ::stat((folder / "libcsi.cfg").string().c_str(), &status));
    EXPECT_EQ(0u, status.st_mode & (S_IWGRP | S_IWOTH));
}

}
