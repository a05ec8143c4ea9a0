// What a powered camera keeps between processes: settings written in one
// system are there in the next, a power cycle or reset brings back the
// description's values, a camera open in one system is busy in another, and a
// damaged or foreign state file is reported and ignored. Two systems on one
// file stand for two processes: each holds its own lock file description.
#include "SimHarness.h"

#include "sim/PixelFormats.h"
#include "sim/StateFile.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <sstream>
#include <thread>

using namespace SimTest;
using namespace QEL::Sim::CameraMap;

namespace {

namespace fs = boost::filesystem;

class KeptState : public ::testing::Test {
protected:
    KeptState() : folder(fs::temp_directory_path() / fs::unique_path("lorun-state-%%%%-%%%%"))
    {
        fs::create_directories(folder);
        description = std::string(kTwoCameras);
        description.replace(description.find("[system]\n"), 9, "[system]\nstate = " + StatePath() + "\n");
    }
    ~KeptState() override
    {
        boost::system::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    std::string StatePath() const { return (folder / "board.state").string(); }

    // A system as a process that loads the description makes it.
    std::unique_ptr<Harness> Power() const { return std::make_unique<Harness>(description.c_str()); }

    // A host's write through GenCP, as the producer makes it.
    static void Write(Harness& h, std::uint64_t address, std::uint32_t value, int fd = -1)
    {
        if (fd < 0) {
            fd = h.OpenNode();
            h.EnterGenCPMode(fd);
        }
        EXPECT_EQ(0, h.WriteMemory(fd, address, &value, sizeof value)) << std::hex << address;
    }

    static std::uint32_t WidthOf(Harness& h, std::size_t camera = 0) { return h.system->GetFirmware(camera).Geometry().width; }

    void WriteStateFile(const std::string& text) const { std::ofstream(StatePath()) << text; }
    std::string StateHeader() const
    {
        char digest[20];
        std::snprintf(digest, sizeof digest, "%016llx",
                      static_cast<unsigned long long>(TextDigest(description)));
        return std::string("lorun virtual camera state 1\ndescription ") + digest + "\n";
    }

    fs::path folder;
    std::string description;
};

TEST_F(KeptState, SettingsLiveUntilAPowerCycleOrAReset)
{
    const std::uint32_t mono12 = PixelFormatByName("Mono12").pfnc;
    {
        auto first = Power();
        const int fd = first->OpenNode();
        first->EnterGenCPMode(fd);
        Write(*first, Width, 32, fd);
        Write(*first, PixelFormatRegister, mono12, fd);
        Write(*first, AcquisitionStart, 1, fd); // a command: nothing to keep
    }
    auto second = Power();
    EXPECT_EQ(32u, WidthOf(*second)) << "the next process finds the camera as the last one left it";
    EXPECT_EQ(mono12, second->system->GetFirmware(0).Geometry().format->pfnc);
    EXPECT_EQ(32u, WidthOf(*second, 1)) << "the other camera keeps its own";
    EXPECT_FALSE(second->system->GetFirmware(0).IsAcquiring());

    // Each way back to the description's values, seen by the process after it.
    const std::function<void(Harness&)> resets[] = {
        [](Harness& h) {
            h.system->SetAvailable(0, false);
            h.system->SetAvailable(0, true);
        },
        [](Harness& h) { h.system->ApplyCommand("reset camera0"); },
        [](Harness& h) { h.WriteCci(h.OpenNode(), CciReset, 1, 1); },
    };
    for (const auto& reset : resets) {
        {
            auto h = Power();
            Write(*h, Width, 48);
            reset(*h);
            EXPECT_EQ(64u, WidthOf(*h));
        }
        auto after = Power();
        EXPECT_EQ(64u, WidthOf(*after));
        EXPECT_EQ(PixelFormatByName("Mono8").pfnc, after->system->GetFirmware(0).Geometry().format->pfnc);
    }
}

TEST_F(KeptState, ACameraOpenInOneProcessIsBusyInAnother)
{
    auto first = Power();
    auto second = Power();
    const int fd = first->OpenNode();
    errno = 0;
    EXPECT_EQ(-1, second->system->Open("/dev/video0", O_RDWR | O_NONBLOCK));
    EXPECT_EQ(EBUSY, errno);
    const int other = second->system->Open("/dev/video1", O_RDWR | O_NONBLOCK);
    EXPECT_GE(other, 0) << "another camera of the board is free";
    second->system->Close(other);
    const int again = first->system->Open("/dev/video0", O_RDWR | O_NONBLOCK);
    EXPECT_GE(again, 0) << "a process may open its own camera twice";
    first->system->Close(again);

    first->EnterGenCPMode(fd);
    Write(*first, Width, 24, fd);
    EXPECT_EQ(64u, WidthOf(*second)) << "loaded before the write";
    first.reset();
    const int now = second->system->Open("/dev/video0", O_RDWR | O_NONBLOCK);
    EXPECT_GE(now, 0) << "free once the other process closed it";
    EXPECT_EQ(24u, WidthOf(*second)) << "opened, it is the camera the other process left";
    second->system->Close(now);
}

TEST_F(KeptState, DamagedForeignOrRefusedStateIsReportedAndIgnored)
{
    const struct {
        const char* what;
        std::string text;
        const char* message;
    } cases[] = {
        {"not ours", "Width=32\n", "not a state file of the virtual camera; ignored"},
        {"foreign", "lorun virtual camera state 1\ndescription 0123456789abcdef\ncamera0 10200010 20000000\n",
         "it belongs to another camera description; ignored"},
        {"bad line", StateHeader() + "camera0 10200010\n", "line 3 is not 'CAMERA ADDRESS VALUE'; ignored"},
        {"bad value", StateHeader() + "camera0 10200010 2g000000\n", "bad value '2g000000'; ignored"},
        {"too large", StateHeader() + std::string(1u << 20, '#'), "not a regular file of at most 1 MiB; ignored"},
        {"refused", StateHeader() + "camera0 10200010 21000000\n", "[camera0] register 0x10200010 refused its value"},
        {"not kept", StateHeader() + "camera0 00010020 02000000\n", "[camera0] register 0x10020 refused its value"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        WriteStateFile(c.text);
        testing::internal::CaptureStderr();
        auto h = Power();
        const std::string reported = testing::internal::GetCapturedStderr();
        EXPECT_NE(std::string::npos, reported.find("Virtual camera state file '" + StatePath() + "'")) << reported;
        EXPECT_NE(std::string::npos, reported.find(c.message)) << reported;
        EXPECT_EQ(64u, WidthOf(*h)) << "the description's value";
        EXPECT_EQ(2u, h->system->GetFirmware(0).ReadValue(Sbrm + 20)) << "nothing but the settings is touched";
    }

    // Never through a link: a state file that is one is not read, and a write replaces the link itself.
    const std::string target = (folder / "elsewhere").string();
    std::ofstream(target) << StateHeader() << "camera0 10200010 20000000\n";
    fs::remove(StatePath());
    fs::create_symlink(target, StatePath());
    testing::internal::CaptureStderr();
    auto h = Power();
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("cannot be read")) << "a link";
    EXPECT_EQ(64u, WidthOf(*h));
    Write(*h, Width, 40);
    EXPECT_FALSE(fs::is_symlink(StatePath()));
    std::ifstream kept(target);
    EXPECT_NE(std::string::npos, std::string(std::istreambuf_iterator<char>(kept), {}).find("20000000"))
        << "the link's target is left alone";
}

TEST_F(KeptState, TwoProcessesSavingAtOnceLoseNothing)
{
    StateFile one(StatePath(), 7), two(StatePath(), 7);
    auto save = [](StateFile& file, const std::string& camera) {
        for (std::uint8_t i = 1; i <= 200; ++i)
            file.Save(camera, {{CameraMap::Width, {i, 0, 0, 0}}, {Height, {static_cast<std::uint8_t>(i / 2), 1, 0, 0}}});
    };
    std::thread left(save, std::ref(one), "camera0");
    std::thread right(save, std::ref(two), "camera1");
    left.join();
    right.join();
    const StateFile::Values expected = {{CameraMap::Width, {200, 0, 0, 0}}, {Height, {100, 1, 0, 0}}};
    EXPECT_EQ(expected, one.Load("camera0"));
    EXPECT_EQ(expected, two.Load("camera1"));
    one.Save("camera0", {});
    EXPECT_TRUE(two.Load("camera0").empty()) << "a camera at its description's values keeps nothing";
    EXPECT_EQ(expected, one.Load("camera1"));
}

TEST(StateFileDefault, BesideTheDescriptionWithoutConfiguration)
{
    const fs::path folder = fs::temp_directory_path() / fs::unique_path("lorun-state-%%%%-%%%%");
    fs::create_directories(folder);
    const std::string path = (folder / "board.ini").string();
    std::ofstream(path) << "[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\n";
    EXPECT_EQ(path + ".state", SystemDescription::FromFile(path).state);
    std::ofstream(path) << "[system]\nstate = none\n[camera0]\nbus_timing = 0\n";
    EXPECT_EQ("", SystemDescription::FromFile(path).state) << "none: the cameras keep nothing";
    std::ofstream(path) << "[system]\nstate = kept/here\n[camera0]\nbus_timing = 0\n";
    EXPECT_EQ((folder / "kept/here").string(), SystemDescription::FromFile(path).state) << "relative to the description";
    EXPECT_EQ("", SystemDescription::FromText("[camera0]\nbus_timing = 0\n").state) << "a text keeps nothing unless told";
    boost::system::error_code ignored;
    fs::remove_all(folder, ignored);
}

}
