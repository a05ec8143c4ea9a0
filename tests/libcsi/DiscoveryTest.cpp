#include "libcsi/Config.h"
#include "libcsi/Log.h"
#include "libcsi/OsSeam.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "sim/VirtualSystem.h"
#include "tests/TestSupport.h"
#include "tests/libcsi/ReportCollector.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

using namespace QEL;

namespace {

const char* kCameras = R"(
[camera0]
node = video0
port = 2
bus = 2
address = 0x3c
model = Left Camera
bus_timing = 0
[camera1]
node = video1
port = 0
bus = 5
address = 0x10
model = Ærø Camera
string_encoding = 2
cci_layout_version = 65537
device_capabilities = 0
bus_timing = 0
[camera2]
node = video2
bus = 6
model = Grüne Kamera
string_encoding = 1
bus_timing = 0
)";

class Discovery : public ::testing::Test {
protected:
    void SetUp() override
    {
        system = std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(kCameras));
        Os::Install(system);
        ASSERT_EQ(LIBCSI_OK, libcsi_init());
        ASSERT_EQ(LIBCSI_OK, libcsi_register_discovery_callback(&Discovery::OnDiscovery, this));
        ASSERT_EQ(LIBCSI_OK, libcsi_update_device_list());
    }
    void TearDown() override
    {
        EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
        Os::Install(nullptr);
    }

    static void OnDiscovery(void* context, const char* portID, bool available)
    {
        auto* self = static_cast<Discovery*>(context);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->events.emplace_back(portID, available);
        self->changed.notify_all();
    }

    bool AwaitEvents(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), [&] { return events.size() >= count; });
    }

    // The two-call protocol: size first, then a zero-filled buffer one byte larger.
    std::string InfoString(std::uint32_t index, std::int32_t id)
    {
        std::int32_t type = -1;
        std::uint64_t size = 0;
        EXPECT_EQ(LIBCSI_OK, libcsi_get_info(index, id, &type, nullptr, &size));
        EXPECT_EQ(LIBCSI_TYPE_STRING, type);
        std::vector<char> text(size + 1, 0);
        EXPECT_EQ(LIBCSI_OK, libcsi_get_info(index, id, &type, text.data(), &size));
        return std::string(text.data());
    }

    std::shared_ptr<Sim::VirtualSystem> system;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<std::string, bool>> events;
};

TEST_F(Discovery, DeviceListFromTheSysfsTree)
{
    std::uint32_t count = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_device_count(&count));
    ASSERT_EQ(3u, count);
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_device_count(nullptr));
    EXPECT_EQ("Port:0x02_Bus:0x02_Address:0x3C", InfoString(0, INFO_PortID));
    EXPECT_EQ("Port:0x00_Bus:0x05_Address:0x10", InfoString(1, INFO_PortID));
    EXPECT_EQ("Left Camera", InfoString(0, INFO_ModelName));
    EXPECT_EQ("VIRTUAL-CAMERA-0001", InfoString(0, INFO_DeviceGUID));

    std::string info = ReadFile(LibCSIImpl::TheConfig().PathOf("libcsi_info.txt"));
    EXPECT_NE(std::string::npos, info.find("3 device(s) found:\n"));
    EXPECT_NE(std::string::npos, info.find(" DevNode=/dev/video1\n"));
    EXPECT_NE(std::string::npos, info.find(" DriverVersion=1.0.8.0\n"));
}

TEST_F(Discovery, InfoProtocolAndValues)
{
    std::int32_t type = -1;
    std::uint64_t size = 0;
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_INDEX, libcsi_get_info(3, INFO_ModelName, &type, nullptr, &size));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_info(0, INFO_ModelName, nullptr, nullptr, &size));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_info(0, INFO_ModelName, &type, nullptr, nullptr));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_info(0, 13, &type, nullptr, &size));

    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(0, INFO_ModelName, &type, nullptr, &size));
    EXPECT_EQ(12u, size) << "length and terminator";
    char exact[12] = {};
    EXPECT_EQ(LIBCSI_OK, libcsi_get_info(0, INFO_ModelName, &type, exact, &size));
    char small[11] = {};
    size = sizeof small;
    EXPECT_EQ(LIBCSI_BUFFER_TOO_SMALL, libcsi_get_info(0, INFO_ModelName, &type, small, &size));
    EXPECT_EQ(12u, size) << "the size needed comes back";

    std::uint8_t flag = 7;
    size = 1;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(0, INFO_Availability, &type, &flag, &size));
    EXPECT_EQ(LIBCSI_TYPE_BOOL, type);
    EXPECT_EQ(1, flag);
    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(0, INFO_GenCPModeSupported, &type, &flag, &size));
    EXPECT_EQ(1, flag);
    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(1, INFO_GenCPModeSupported, &type, &flag, &size));
    EXPECT_EQ(0, flag);
    std::uint16_t half = 0;
    size = 2;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(1, INFO_CCIVersionMajor, &type, &half, &size));
    EXPECT_EQ(LIBCSI_TYPE_UINT16, type);
    EXPECT_EQ(1, half);
    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(1, INFO_CCIVersionMinor, &type, &half, &size));
    EXPECT_EQ(1, half);

    system->SetAvailable(0, false);
    size = 1;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_info(0, INFO_Availability, &type, &flag, &size));
    EXPECT_EQ(0, flag);
}

TEST_F(Discovery, DeviceStringsAreConvertedToLatin1)
{
    EXPECT_EQ("\xC6r\xF8 Camera", InfoString(1, INFO_ModelName)) << "from UTF-16";
    EXPECT_EQ("Gr\xFCne Kamera", InfoString(2, INFO_ModelName)) << "from UTF-8";
}

TEST_F(Discovery, UnplugAndReplugReachTheCallback)
{
    // A change is seen only once the discovery thread watches the attribute, as on a real board.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!system->IsWatched("/sys/class/video4linux/video1/availability") && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    system->SetAvailable(1, false);
    ASSERT_TRUE(AwaitEvents(1));
    system->SetAvailable(1, true);
    ASSERT_TRUE(AwaitEvents(2));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(std::make_pair(std::string("Port:0x00_Bus:0x05_Address:0x10"), false), events[0]);
    EXPECT_EQ(std::make_pair(std::string("Port:0x00_Bus:0x05_Address:0x10"), true), events[1]);
}

TEST_F(Discovery, ErrorsReachTheReportCallback)
{
    static ReportCollector reports;
    const auto registration = reports.Register();
    const std::int32_t saved = LibCSIImpl::ExchangeLogLevel(3);
    std::int32_t type;
    std::uint64_t size = 0;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_info(0, 40, &type, nullptr, &size));
    LibCSIImpl::ExchangeLogLevel(saved);
    std::unique_lock<std::mutex> lock(reports.mutex);
    ASSERT_TRUE(reports.AwaitLine(lock, " ERROR: Invalid InfoID."));
    for (const auto& line : reports.lines)
        EXPECT_EQ(0u, line.find("LIBCSI: ")) << line;
}

}
