#include "SimHarness.h"

#include "sim/PixelFormats.h"
#include "sim/VirtualBackend.h"

#include <unistd.h>

using namespace SimTest;

namespace {

TEST(Description, DefaultsAndRefusals)
{
    auto d = SystemDescription::FromText("[camera0]\nnode = video0\n");
    ASSERT_EQ(1u, d.cameras.size());
    EXPECT_EQ("imx8m", d.board);
    EXPECT_EQ(0x010008u, d.interfaceVersion);
    EXPECT_EQ("Mono8", d.cameras[0].pixelFormat);
    EXPECT_THROW(SystemDescription::FromText("[camera0]\nwidht = 5\n"), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromText("[camera0]\npixel_format = Mono99\n"), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromText("[camera0]\nwidth = 5000\n"), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromText("[system]\nboard = pi\n"), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromText("[lens]\nfocus = 1\n"), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromFile("/nonexistent/cameras.ini"), std::invalid_argument);
}

TEST(Description, TheShippedExampleDescribesTwoCameras)
{
    auto d = SystemDescription::FromFile(LORUN_SOURCE_DIR "/sim/examples/two-cameras.ini");
    ASSERT_EQ(2u, d.cameras.size());
    EXPECT_EQ(2592u * 1944u, d.cameras[0].width * d.cameras[0].height);
    EXPECT_EQ("RGB8", d.cameras[1].pixelFormat);
    EXPECT_NE(d.cameras[0].guid, d.cameras[1].guid);
}

TEST(Sysfs, TreeOfTheDriverAndTheI2CClients)
{
    Harness h;
    auto nodes = h.system->ListDirectory("/sys/class/video4linux");
    EXPECT_EQ((std::vector<std::string>{"video0", "video1"}), nodes);
    EXPECT_EQ("qel_csi2_if\n", h.ReadAttribute("/sys/class/video4linux/video0/if_name"));
    EXPECT_EQ("2:2:3c\n", h.ReadAttribute("/sys/class/video4linux/video0/bus_info"));
    EXPECT_EQ("1\n", h.ReadAttribute("/sys/class/video4linux/video1/availability"));
    EXPECT_EQ("Left Camera\n", h.ReadAttribute("/sys/class/i2c-dev/i2c-2/device/2-003c/model_name"));
    EXPECT_EQ("RIGHT-2\n", h.ReadAttribute("/sys/class/i2c-dev/i2c-3/device/3-003c/serial_number"));
    EXPECT_EQ("1.0.8.0\n", h.ReadAttribute("/sys/class/i2c-dev/i2c-2/device/2-003c/driver_version"));
    EXPECT_EQ("65536\n", h.ReadAttribute("/sys/class/i2c-dev/i2c-2/device/2-003c/cci_register_layout_version"));
    EXPECT_EQ("4\n", h.ReadAttribute("/sys/class/i2c-dev/i2c-2/device/2-003c/device_capabilities"));
    EXPECT_NE(std::string::npos, h.ReadAttribute("/sys/devices/soc0/machine").find("i.MX8"));
    EXPECT_EQ(-1, h.system->Open("/sys/class/video4linux/video7/if_name", O_RDONLY));
    EXPECT_EQ(ENOENT, errno);
}

// Availability changes are signalled as sysfs does: an exception on a
// descriptor that has been read, in a select that also waits on real pipes.
TEST(Sysfs, AvailabilityChangesWakeASelectOverMixedDescriptors)
{
    Harness h;
    int attribute = h.system->Open("/sys/class/video4linux/video0/availability", O_RDONLY);
    ASSERT_GE(attribute, 0);
    char value;
    ASSERT_EQ(1, h.system->Read(attribute, &value, 1));
    int pipeFds[2];
    ASSERT_EQ(0, ::pipe(pipeFds));

    fd_set readSet, exceptSet;
    auto wait = [&](int timeoutMs) {
        FD_ZERO(&readSet);
        FD_ZERO(&exceptSet);
        FD_SET(pipeFds[0], &readSet);
        FD_SET(attribute, &exceptSet);
        timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        return h.system->Select(std::max(pipeFds[0], attribute) + 1, &readSet, nullptr, &exceptSet, &timeout);
    };
    EXPECT_EQ(0, wait(20)) << "no change yet";

    std::thread unplug([&] {
        // Race-widening: the change should come while select already waits (it may come before, too).
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        h.system->SetAvailable(0, false);
    });
    EXPECT_EQ(1, wait(2000));
    unplug.join();
    EXPECT_TRUE(FD_ISSET(attribute, &exceptSet));
    EXPECT_FALSE(FD_ISSET(pipeFds[0], &readSet));
    ASSERT_EQ(0, h.system->Lseek(attribute, 0, SEEK_SET));
    ASSERT_EQ(1, h.system->Read(attribute, &value, 1));
    EXPECT_EQ('0', value);
    EXPECT_EQ(0, wait(10)) << "reading the value clears the condition";

    // A real descriptor in the same call wakes it too.
    ASSERT_EQ(1, ::write(pipeFds[1], "x", 1));
    EXPECT_EQ(1, wait(2000));
    EXPECT_TRUE(FD_ISSET(pipeFds[0], &readSet));

    // An unplugged camera does not answer on its control bus.
    int node = h.OpenNode();
    std::uint8_t byte;
    EXPECT_EQ(-1, h.ReadI2C(node, 0x0010, &byte, 1));
    EXPECT_EQ(ENODEV, errno);
    h.system->SetAvailable(0, true);
    EXPECT_EQ(0, h.ReadI2C(node, 0x0010, &byte, 1));
    h.system->Close(attribute);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

TEST(Driver, LimitsAndIdentity)
{
    Harness h;
    int fd = h.OpenNode();
    v4l2_capability cap{};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_QUERYCAP, &cap));
    EXPECT_STREQ("qel_csi2", reinterpret_cast<const char*>(cap.driver));
    qel_driver_info info{};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_DRIVER_INFO, &info));
    EXPECT_EQ(0, info.manufacturer);
    EXPECT_EQ(3, info.soc);
    EXPECT_EQ(0x010008u, info.driver_interface_version);
    EXPECT_EQ(256u, info.usrptr_alignment);
    qel_ipu_restrictions ipu{};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_IPU_RESTRICTIONS, &ipu));
    EXPECT_EQ(192u, ipu.x_inc);
    std::uint32_t frames = 0, lanes = 0, clock = 0;
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_MIN_ANNOUNCED_FRAMES, &frames));
    EXPECT_EQ(2u, frames);
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_SUPPORTED_LANE_COUNTS, &lanes));
    EXPECT_EQ(0xBu, lanes);
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_I2C_CLOCK_FREQ, &clock));
    EXPECT_EQ(400000u, clock);
    qel_clock_ranges ranges{};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_CSI_CLOCK_RANGES, &ranges));
    EXPECT_EQ(1, ranges.lanes[1].valid);
    EXPECT_EQ(0, ranges.lanes[2].valid);
    qel_gencp_buffer_sizes sizes{};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_GENCP_BUFFER_SIZES, &sizes));
    EXPECT_EQ(1024u, sizes.in_size);
    qel_csi_config config{4, {}, 600000000};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_S_CSI_CONFIG, &config));
    EXPECT_EQ(4, config.lane_count);
    config = {3, {}, 1};
    ASSERT_EQ(0, h.system->Ioctl(fd, VIDIOC_S_CSI_CONFIG, &config));
    EXPECT_EQ(4, config.lane_count) << "the driver answers with what it accepted";
    EXPECT_EQ(600000000u, config.clock_hz);

    h.system->FailIoctl(0, VIDIOC_G_I2C_CLOCK_FREQ, EIO, 1);
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_G_I2C_CLOCK_FREQ, &clock));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_I2C_CLOCK_FREQ, &clock)) << "the failure was armed once";
    EXPECT_EQ(-1, h.system->Ioctl(fd, 0xC0DE, &clock));
    EXPECT_EQ(ENOTTY, errno);
}

TEST(Driver, BoardsWithoutDriverInfoAndImx6Inputs)
{
    Harness h("[system]\nboard = nitrogen\ndriver_info = 0\n[camera0]\nbus_timing = 0\n");
    int fd = h.OpenNode();
    qel_driver_info info{};
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_G_DRIVER_INFO, &info));
    v4l2_input input{};
    std::vector<std::string> names;
    for (input.index = 0; h.system->Ioctl(fd, VIDIOC_ENUMINPUT, &input) == 0; ++input.index)
        names.push_back(reinterpret_cast<const char*>(input.name));
    EXPECT_EQ((std::vector<std::string>{"CSI IC MEM", "CSI MEM"}), names);
    int index = 1;
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_S_INPUT, &index));
    EXPECT_NE(std::string::npos, h.ReadAttribute("/sys/devices/soc0/machine").find("Nitrogen"));
}

TEST(Seam, PathsAndDescriptorsOfTheRealSystemPassThrough)
{
    Harness h;
    int fd = h.system->Open("/proc/self/maps", O_RDONLY);
    ASSERT_GE(fd, 0);
    char text[16];
    EXPECT_GT(h.system->Read(fd, text, sizeof text), 0);
    EXPECT_EQ(0, h.system->Lseek(fd, 0, SEEK_SET));
    EXPECT_EQ(0, h.system->Close(fd));
    EXPECT_FALSE(h.system->ListDirectory("/proc/self").empty());
}

}

namespace {

TEST(Seam, TheVirtualCameraIsChosenOnlyByADescriptionFile)
{
    EXPECT_EQ(nullptr, QEL::Sim::ChooseVirtualBackend(nullptr));
    EXPECT_EQ(nullptr, QEL::Sim::ChooseVirtualBackend(""));
    EXPECT_EQ(nullptr, QEL::Sim::ChooseVirtualBackend("/nonexistent/cameras.ini")) << "an unusable file is no selection";
    char path[] = "/tmp/lorun-cameras-XXXXXX";
    int fd = ::mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string text = "[camera0]\nnode = video5\n";
    ASSERT_EQ(static_cast<ssize_t>(text.size()), ::write(fd, text.data(), text.size()));
    ::close(fd);
    auto backend = QEL::Sim::ChooseVirtualBackend(path);
    ::unlink(path);
    ASSERT_NE(nullptr, backend);
    EXPECT_EQ(std::vector<std::string>{"video5"}, backend->ListDirectory("/sys/class/video4linux"));

    // Installed, it is what libcsi's calls reach; without it, the real system.
    QEL::Os::Install(backend);
    EXPECT_EQ(backend.get(), &QEL::Os::Current());
    QEL::Os::Install(nullptr);
    EXPECT_EQ(&QEL::Os::RealBackend(), &QEL::Os::Current());
}

TEST(Driver, IoctlsFailByName)
{
    Harness h;
    int fd = h.OpenNode();
    h.system->FailIoctl(0, "VIDIOC_G_DRIVER_INFO", ENOTTY, 2);
    qel_driver_info info{};
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_G_DRIVER_INFO, &info));
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_G_DRIVER_INFO, &info));
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_G_DRIVER_INFO, &info));
    EXPECT_THROW(h.system->FailIoctl(0, "VIDIOC_NONSENSE", EIO, 1), std::invalid_argument);
}

TEST(GenCP, IndirectAsicRegisters)
{
    Harness h;
    int fd = h.OpenNode();
    h.EnterGenCPMode(fd);
    const std::uint32_t address = 0x60022068;
    ASSERT_EQ(0, h.WriteMemory(fd, QEL::Sim::CameraMap::AsicAddress, &address, 4));
    auto value = h.ReadMemory(fd, QEL::Sim::CameraMap::AsicData, 4);
    ASSERT_EQ(4u, value.size());
    EXPECT_EQ(36, value[0]) << "nVBP";
    const std::uint32_t patched = 40;
    ASSERT_EQ(0, h.WriteMemory(fd, QEL::Sim::CameraMap::AsicData, &patched, 4));
    EXPECT_EQ(40, h.ReadMemory(fd, QEL::Sim::CameraMap::AsicData, 4).at(0));
}

}
