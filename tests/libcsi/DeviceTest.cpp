#include "gencp/AckException.h"
#include "gencp/CCIPacket.h"
#include "gencp/Commands.h"
#include "libcsi/Config.h"
#include "libcsi/Log.h"
#include "libcsi/OsSeam.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "sim/CameraMap.h"
#include "sim/ObservedSystem.h"
#include "sim/VirtualSystem.h"
#include "tests/TestSupport.h"
#include "tests/sim/SimHarness.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <mutex>
#include <set>
#include <string>

using namespace QEL;

namespace {

// libcsi initialised over a virtual system made from `description`.
class VirtualBoard {
public:
    explicit VirtualBoard(const std::string& description)
        : system(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(description)))
    {
        Os::Install(system);
        EXPECT_EQ(LIBCSI_OK, libcsi_init());
        EXPECT_EQ(LIBCSI_OK, libcsi_update_device_list());
    }
    ~VirtualBoard()
    {
        EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
        Os::Install(nullptr);
    }
    std::int32_t Open(device_handle_t** handle, std::uint32_t index = 0) { return libcsi_open_device(index, handle); }

    std::shared_ptr<Sim::VirtualSystem> system;
};

const char* kOneCamera = "[camera0]\nbus_timing = 0\nmode_switch_delay_ms = 5\n";

TEST(DeviceOpen, OpenCloseAndState)
{
    VirtualBoard board(kOneCamera);
    device_handle_t* device = nullptr;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_open_device(0, nullptr));
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_INDEX, board.Open(&device, 1));
    ASSERT_EQ(LIBCSI_OK, board.Open(&device));
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(1, board.system->GetFirmware(0).GetDeviceMode()) << "the camera is in GenCP mode";
    device_handle_t* again = nullptr;
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_STATE, board.Open(&again)) << "already open";

    std::uint32_t value = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_min_announced_frames(device, &value));
    EXPECT_EQ(3u, value);
    std::uint32_t in = 0, out = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_gencp_buffer_sizes(device, &in, &out));
    EXPECT_EQ(1024u, in);
    libcsi_ipu_restrictions_t ipu{};
    ASSERT_EQ(LIBCSI_OK, libcsi_get_ipu_restrictions(device, &ipu));
    EXPECT_EQ(192u, ipu.m_nXInc);
    EXPECT_EQ(256u, ipu.mem_alignment);
    std::uint64_t identifiers[4] = {};
    ASSERT_EQ(LIBCSI_OK, libcsi_get_supported_csi_data_identifiers(device, identifiers));
    EXPECT_TRUE(identifiers[0] & (std::uint64_t{1} << 49));
    std::uint32_t speed = 9;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_cci_link_speed(device, &speed));
    EXPECT_EQ(1u, speed);

    std::int32_t type = 0;
    std::uint64_t size = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_ext_info(device, 3, &type, nullptr, &size));
    std::vector<char> board_text(size, 0);
    ASSERT_EQ(LIBCSI_OK, libcsi_get_ext_info(device, 3, &type, board_text.data(), &size));
    EXPECT_STREQ("NXP i.MX8M", board_text.data());
    std::uint32_t word = 0;
    size = sizeof word;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_ext_info(device, 1, &type, &word, &size));
    EXPECT_EQ(0x010008u, word);

    std::uint8_t lanes = 4;
    std::uint32_t clock = 600000000;
    ASSERT_EQ(LIBCSI_OK, libcsi_set_csi_config(device, &lanes, &clock));
    EXPECT_EQ(4, lanes);
    lanes = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_csi_config(device, &lanes, &clock));
    EXPECT_EQ(4, lanes);
    EXPECT_EQ(600000000u, clock);

    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
    EXPECT_EQ(0, board.system->GetFirmware(0).GetDeviceMode()) << "closing gives the camera its first mode back";
    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device)) << "closing is idempotent";
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_close_device(nullptr));
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_STATE, libcsi_get_min_announced_frames(device, &value));
    ASSERT_EQ(LIBCSI_OK, board.Open(&device)) << "a closed device opens again";
}

TEST(DeviceOpen, VersionChecks)
{
    {
        VirtualBoard board("[camera0]\nbus_timing = 0\nlayout_version = 0x20000\n");
        device_handle_t* device = nullptr;
        EXPECT_EQ(LIBCSI_INVALID_LAYOUT_VERSION, board.Open(&device));
        EXPECT_EQ(0, board.system->GetFirmware(0).GetDeviceMode()) << "a failed open leaves the camera as it was";
        EXPECT_EQ(LIBCSI_INVALID_LAYOUT_VERSION, board.Open(&device)) << "and the device closed";
    }
    {
        VirtualBoard board("[system]\ninterface_version = 1.0.5\n[camera0]\nbus_timing = 0\n");
        device_handle_t* device = nullptr;
        EXPECT_EQ(LIBCSI_INCOMPATIBLE_DRIVER, board.Open(&device));
    }
    {
        VirtualBoard board("[system]\ninterface_version = 1.0.6\n[camera0]\nbus_timing = 0\n");
        device_handle_t* device = nullptr;
        EXPECT_EQ(LIBCSI_OK, board.Open(&device));
    }
    {
        VirtualBoard board("[system]\ndriver_info = 0\n[camera0]\nbus_timing = 0\n");
        device_handle_t* device = nullptr;
        EXPECT_EQ(LIBCSI_INCOMPATIBLE_DRIVER, board.Open(&device)) << "a driver without its info is too old";
    }
}

TEST(DeviceOpen, LinkSpeedLanesAndStatistics)
{
    VirtualBoard board("[system]\nstatistics_capabilities = 0x13\n"
                       "[camera0]\nbus_timing = 0\nbus_speed = 100000\nlane_mask = 0xA\n"
                       "[camera1]\nnode = video1\nbus = 3\nbus_timing = 0\nbus_speed = 200000\n");
    device_handle_t* slow = nullptr;
    device_handle_t* odd = nullptr;
    ASSERT_EQ(LIBCSI_OK, board.Open(&slow, 0));
    ASSERT_EQ(LIBCSI_OK, board.Open(&odd, 1));
    std::uint32_t speed = 9;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_cci_link_speed(slow, &speed));
    EXPECT_EQ(0u, speed);
    EXPECT_EQ(LIBCSI_I2C_CLOCK_UNKNOWN, libcsi_get_cci_link_speed(odd, &speed));
    board.system->FailIoctl(0, "VIDIOC_G_I2C_CLOCK_FREQ", EIO, 1);
    EXPECT_EQ(LIBCSI_DRIVER_CALL_FAILED, libcsi_get_cci_link_speed(slow, &speed));

    std::uint8_t lanes = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_supported_lane_counts(slow, &lanes));
    EXPECT_EQ(0xA, lanes);
    std::uint32_t min = 0, max = 0;
    EXPECT_EQ(LIBCSI_OK, libcsi_get_supported_csi_host_clock_range(slow, 2, &min, &max));
    EXPECT_GT(max, min);
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_supported_csi_host_clock_range(slow, 3, &min, &max));

    std::uint64_t capabilities = 0;
    ASSERT_EQ(LIBCSI_OK, libcsi_get_statistics_capability(slow, &capabilities));
    EXPECT_EQ(0x3u, capabilities) << "bit 4 without bit 5 adds no frame rate pair";
}

TEST(DeviceOpen, IpuOverrideAndImx6Boards)
{
    auto& config = LibCSIImpl::TheConfig();
    const auto saved = config;
    config.ipuOverride = true;
    config.ipuXInc = 64;
    {
        VirtualBoard board("[system]\nboard = wandboard\n[camera0]\nbus_timing = 0\n");
        device_handle_t* device = nullptr;
        ASSERT_EQ(LIBCSI_OK, board.Open(&device));
        libcsi_ipu_restrictions_t ipu{};
        ASSERT_EQ(LIBCSI_OK, libcsi_get_ipu_restrictions(device, &ipu));
        EXPECT_EQ(64u, ipu.m_nXInc) << "the configured values win over the driver's";
        std::int32_t type;
        std::uint64_t size = 64;
        char text[64] = {};
        ASSERT_EQ(LIBCSI_OK, libcsi_get_ext_info(device, 3, &type, text, &size));
        EXPECT_STREQ("NXP i.MX6 Wandboard", text);
    }
    config = saved;
}

// Keeps the register addresses libcsi writes.
class WriteRecorder {
public:
    void operator()(unsigned long request, const void* argument)
    {
        if (request != VIDIOC_W_I2C)
            return;
        std::lock_guard<std::mutex> lock(mutex);
        written.insert(static_cast<const qel_i2c_access*>(argument)->register_address);
    }
    bool Wrote(std::uint64_t address)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return written.count(address) != 0;
    }
    void Forget()
    {
        std::lock_guard<std::mutex> lock(mutex);
        written.clear();
    }

private:
    std::mutex mutex;
    std::set<std::uint64_t> written;
};

TEST(DeviceOpen, ACameraAlreadyInGenCPModeIsNotSwitched)
{
    VirtualBoard board(kOneCamera);
    auto recorder = std::make_shared<WriteRecorder>();
    Os::Install(std::make_shared<Sim::ObservedSystem>(
        board.system, [recorder](unsigned long request, const void* argument) { (*recorder)(request, argument); }));
    device_handle_t* device = nullptr;
    ASSERT_EQ(LIBCSI_OK, board.Open(&device));
    EXPECT_TRUE(recorder->Wrote(0x021C)) << "a camera in mode 0 is switched";
    ASSERT_EQ(LIBCSI_OK, libcsi_close_device(device));
    ASSERT_EQ(0, board.system->GetFirmware(0).GetDeviceMode());

    // A camera left in GenCP mode, as by a process that died with it open.
    const std::uint8_t genCPMode = 1;
    ASSERT_EQ(0, board.system->GetFirmware(0).WriteCCI(0x021C, &genCPMode, 1));
    for (int i = 0; i < 200 && board.system->GetFirmware(0).GetDeviceMode() != 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(1, board.system->GetFirmware(0).GetDeviceMode());
    recorder->Forget();
    ASSERT_EQ(LIBCSI_OK, board.Open(&device));
    EXPECT_FALSE(recorder->Wrote(0x021C));
    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
    EXPECT_TRUE(recorder->Wrote(0x021C)) << "closing switches it back";
    Os::Install(board.system);
}

// Each failure the driver or the camera can cause during an open, with the
// code it must give; after each the device is closed, the camera back in
// mode 0, and the next open succeeds.
TEST(DeviceOpen, EveryInjectedOpenFailureGivesItsCodeAndAClosedDevice)
{
    struct Case {
        const char* name;
        std::function<void(Sim::VirtualSystem&)> inject;
        std::int32_t expected;
    };
    const std::vector<Case> cases = {
        {"node refuses to open", [](Sim::VirtualSystem& s) { s.InjectFault(0, Sim::Fault::NodeOpenFailure, 1, EINVAL); },
         LIBCSI_OPEN_FAILED},
        {"mode register unreadable", [](Sim::VirtualSystem& s) { s.InjectFault(0, Sim::Fault::I2CReadFailure, 1); },
         LIBCSI_READ_FAILED},
        {"mode switch not written", [](Sim::VirtualSystem& s) { s.InjectFault(0, Sim::Fault::I2CWriteFailure, 1); },
         LIBCSI_READ_FAILED},
        {"VIDIOC_QUERYCAP", [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_QUERYCAP", EIO, 1); },
         LIBCSI_READ_FAILED},
        {"VIDIOC_G_DRIVER_INFO", [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_DRIVER_INFO", ENOTTY, 1); },
         LIBCSI_INCOMPATIBLE_DRIVER},
        {"VIDIOC_G_GENCP_BUFFER_SIZES",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_GENCP_BUFFER_SIZES", EIO, 1); }, LIBCSI_READ_FAILED},
        {"VIDIOC_G_SUPPORTED_LANE_COUNTS",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_SUPPORTED_LANE_COUNTS", EIO, 1); }, LIBCSI_READ_FAILED},
        {"VIDIOC_G_CSI_CLOCK_RANGES",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_CSI_CLOCK_RANGES", EIO, 1); }, LIBCSI_READ_FAILED},
        {"VIDIOC_G_DATA_IDENTIFIERS",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_DATA_IDENTIFIERS", EIO, 1); }, LIBCSI_READ_FAILED},
        {"VIDIOC_G_IPU_RESTRICTIONS",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_IPU_RESTRICTIONS", EIO, 1); }, LIBCSI_READ_FAILED},
        {"VIDIOC_G_MIN_ANNOUNCED_FRAMES",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_MIN_ANNOUNCED_FRAMES", EIO, 1); }, LIBCSI_READ_FAILED},
        {"VIDIOC_G_STATISTICS_CAPABILITIES",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_G_STATISTICS_CAPABILITIES", EIO, 1); },
         LIBCSI_READ_FAILED},
        {"VIDIOC_RESET_STREAMSTAT is only a warning",
         [](Sim::VirtualSystem& s) { s.FailIoctl(0, "VIDIOC_RESET_STREAMSTAT", EIO, 1); }, LIBCSI_OK},
    };
    VirtualBoard board(kOneCamera);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.inject(*board.system);
        device_handle_t* device = nullptr;
        EXPECT_EQ(c.expected, board.Open(&device));
        board.system->ClearFaults(0);
        if (c.expected == LIBCSI_OK) {
            EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
            continue;
        }
        EXPECT_EQ(nullptr, device) << "no handle for a failed open";
        EXPECT_EQ(0, board.system->GetFirmware(0).GetDeviceMode());
        ASSERT_EQ(LIBCSI_OK, board.Open(&device)) << "the device was left closed";
        EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
    }
}

TEST(DeviceOpen, WithoutDescriptorsForItsPipeTheOpenFailsCleanly)
{
#if defined(__SANITIZE_ADDRESS__)
    // UBSan's vptr check probes memory through a pipe of its own: with no
    // descriptor left it reports every virtual call as a bad object.
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
#endif
    VirtualBoard board(kOneCamera);
    // One open and close first: what libcsi opens on first use (its log file)
    // then holds its descriptor already, and cannot take the one left below.
    device_handle_t* warm = nullptr;
    ASSERT_EQ(LIBCSI_OK, board.Open(&warm));
    ASSERT_EQ(LIBCSI_OK, libcsi_close_device(warm));
    // Leave exactly one free descriptor: the node opens, its stop pipe cannot.
    const int lowestFree = LowestFreeDescriptor();
    device_handle_t* device = nullptr;
    const std::int32_t result = WithDescriptorsLeft(1, [&] { return board.Open(&device); });
    EXPECT_EQ(LIBCSI_ERROR, result);
    EXPECT_EQ(nullptr, device);
    const int reused = ::dup(0);
    EXPECT_EQ(lowestFree, reused) << "the node's descriptor was given back";
    ::close(reused);
    ASSERT_EQ(LIBCSI_OK, board.Open(&device));
    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
}

TEST(DeviceOpen, ResetLeavesOnlyClosing)
{
    VirtualBoard board(kOneCamera);
    device_handle_t* device = nullptr;
    ASSERT_EQ(LIBCSI_OK, board.Open(&device));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_reset_device(nullptr));
    ASSERT_EQ(LIBCSI_OK, libcsi_reset_device(device));
    EXPECT_EQ(0, board.system->GetFirmware(0).GetDeviceMode()) << "the camera restarted";
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_STATE, libcsi_reset_device(device));
    std::uint8_t lanes;
    std::uint32_t clock;
    EXPECT_EQ(LIBCSI_INVALID_DEVICE_STATE, libcsi_get_csi_config(device, &lanes, &clock));
    EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
}

class GenCPOverCCI : public ::testing::Test {
protected:
    GenCPOverCCI() : board(kOneCamera) { EXPECT_EQ(LIBCSI_OK, board.Open(&device)); }

    std::vector<std::uint8_t> Read(std::int32_t* result = nullptr, std::uint32_t timeout = 200)
    {
        std::vector<std::uint8_t> packet(1024);
        std::uint64_t size = packet.size();
        std::int32_t rc = libcsi_read_gencp(device, packet.data(), &size, timeout);
        if (result)
            *result = rc;
        packet.resize(rc == LIBCSI_OK ? size : 0);
        return packet;
    }

    // What libcsi reports while `action` runs at `logLevel`. Reinitialises
    // libcsi to deliver the report queue, which closes `device`.
    template <class Action>
    std::string ReportsOf(std::int32_t logLevel, Action action)
    {
        struct Reports {
            std::mutex mutex;
            std::string text;
        } reports;
        EXPECT_EQ(LIBCSI_OK, libcsi_register_report_callback(
                                 [](void* context, const char* line) {
                                     auto* r = static_cast<Reports*>(context);
                                     std::lock_guard<std::mutex> lock(r->mutex);
                                     r->text += line;
                                 },
                                 &reports));
        const std::int32_t saved = LibCSIImpl::ExchangeLogLevel(logLevel);
        action();
        LibCSIImpl::ExchangeLogLevel(saved);
        EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
        EXPECT_EQ(LIBCSI_OK, libcsi_init());
        EXPECT_EQ(LIBCSI_OK, libcsi_update_device_list());
        device = nullptr;
        return reports.text;
    }

    VirtualBoard board;
    device_handle_t* device = nullptr;
};

TEST_F(GenCPOverCCI, RoundTrip)
{
    auto command = SimTest::Harness::ReadCommand(0x44, 64, 11);
    ASSERT_EQ(LIBCSI_OK, libcsi_write_gencp(device, command.data(), command.size(), 200));
    auto ack = Read();
    ASSERT_EQ(80u, ack.size());
    EXPECT_TRUE(SimTest::Harness::CrcValid(ack));
    EXPECT_EQ(11, SimTest::Harness::Field16(ack, 14));
    EXPECT_STREQ("Virtual CSI-2 Camera", reinterpret_cast<const char*>(&ack[16]));

    // A GenCP write changes the camera.
    const std::uint32_t width = 320;
    auto write = SimTest::Harness::WriteCommand(Sim::CameraMap::Width, &width, 4, 12);
    ASSERT_EQ(LIBCSI_OK, libcsi_write_gencp(device, write.data(), write.size(), 200));
    ASSERT_EQ(20u, Read().size());
    EXPECT_EQ(320u, board.system->GetFirmware(0).ReadValue(Sim::CameraMap::Width));
}

// Packets built and checked by the GenCP classes, carried by libcsi.
TEST_F(GenCPOverCCI, PacketsWithTheirChecksumsAndRequestIDs)
{
    auto exchange = [&](std::uint16_t requestId) {
        auto packet = std::make_shared<Base::GenCP::CCIPacket>(12);
        Base::GenCP::ReadMemoryCommand command(packet);
        command.SetAddress(0x0144);
        command.SetSize(64);
        packet->SetFlags(Base::GenCP::Flags::RequestAck);
        packet->SetRequestId(requestId);
        packet->Seal();
        EXPECT_EQ(LIBCSI_OK, libcsi_write_gencp(device, packet->GetBytes().data(), packet->GetBytes().size(), 200));
        auto bytes = Read();
        return std::make_shared<Base::GenCP::CCIPacket>(bytes.data(), bytes.size());
    };
    auto ack = exchange(21);
    EXPECT_TRUE(ack->HasValidCrc());
    EXPECT_EQ(21, ack->GetRequestId());
    Base::GenCP::ReadMemoryAcknowledge data(ack);
    EXPECT_STREQ("VC0000001", reinterpret_cast<const char*>(data.GetData()));

    board.system->InjectFault(0, Sim::Fault::BadAckCRC, 1);
    EXPECT_FALSE(exchange(22)->HasValidCrc());
    board.system->InjectFault(0, Sim::Fault::StaleRequestID, 1);
    EXPECT_EQ(22, exchange(23)->GetRequestId()) << "an answer to the request before";
    board.system->InjectFault(0, Sim::Fault::GenCPStatus, 1, 0x8006);
    auto refused = exchange(24);
    EXPECT_EQ(GC_ERR_ACCESS_DENIED, Base::GenCP::AckException("refused", refused->GetStatus()).GetCode());
}

TEST_F(GenCPOverCCI, PacketsAreDecodedIntoTheVerboseLog)
{
    const std::string reports = ReportsOf(5, [&] {
        const std::uint32_t start = 1;
        auto write = SimTest::Harness::WriteCommand(0x10220000, &start, 4, 30);
        ASSERT_EQ(LIBCSI_OK, libcsi_write_gencp(device, write.data(), write.size(), 200));
        ASSERT_EQ(20u, Read().size());
    });
    for (const char* wanted : {"GenCP packet decode (SEND):", "(REQUEST_ACK)", "WRITEMEM_CMD",
                               "(STREAMDBG RegAcquisitionStart)", "GenCP packet decode (RECEIVE):",
                               "GENCP_SUCCESS", "WRITEMEM_ACK", "LengthWritten: 4"})
        EXPECT_NE(std::string::npos, reports.find(wanted)) << wanted;
}

TEST_F(GenCPOverCCI, AFailedQueryNamesTheExportedFunction)
{
    const std::string reports = ReportsOf(2, [&] {
        board.system->FailIoctl(0, "VIDIOC_G_MIN_ANNOUNCED_FRAMES", EIO, 1);
        std::uint32_t frames = 0;
        EXPECT_EQ(LIBCSI_DRIVER_CALL_FAILED, libcsi_get_min_announced_frames(device, &frames));
    });
    EXPECT_NE(std::string::npos,
              reports.find(" libcsi_get_min_announced_frames ERROR: VIDIOC_G_MIN_ANNOUNCED_FRAMES failed (errno=5"))
        << reports;
    EXPECT_EQ(std::string::npos, reports.find("operator()"));
}

TEST_F(GenCPOverCCI, ArgumentsAndBuffers)
{
    auto command = SimTest::Harness::ReadCommand(0x44, 64, 1);
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_write_gencp(device, command.data(), 0, 200));
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_write_gencp(nullptr, command.data(), command.size(), 200));
    std::uint64_t size = 8;
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_read_gencp(device, nullptr, &size, 200));
    std::int32_t result = 0;
    Read(&result, 0);
    EXPECT_EQ(LIBCSI_TIMEOUT, result) << "no packet waiting";

    ASSERT_EQ(LIBCSI_OK, libcsi_write_gencp(device, command.data(), command.size(), 200));
    std::uint8_t small[16];
    size = sizeof small;
    EXPECT_EQ(LIBCSI_BUFFER_TOO_SMALL, libcsi_read_gencp(device, small, &size, 200));
    EXPECT_EQ(80u, size) << "the packet's size comes back";
    EXPECT_EQ(80u, Read().size()) << "and the packet waits for a larger buffer";
}

TEST_F(GenCPOverCCI, CameraFaultsReachTheCaller)
{
    auto command = SimTest::Harness::ReadCommand(0x44, 4, 1);
    board.system->InjectFault(0, Sim::Fault::ShortSizeWrite, 1);
    EXPECT_EQ(LIBCSI_I2C_WRITE_FAILED, libcsi_write_gencp(device, command.data(), command.size(), 200));

    board.system->InjectFault(0, Sim::Fault::HandshakeStuck, 1, 0);
    EXPECT_EQ(LIBCSI_I2C_WRITE_FAILED, libcsi_write_gencp(device, command.data(), command.size(), 50))
        << "the camera never took the packet";
    EXPECT_EQ(LIBCSI_TIMEOUT, libcsi_write_gencp(device, command.data(), command.size(), 50))
        << "the handshake stays busy, and nothing is written";
}

TEST_F(GenCPOverCCI, BusyHandshakeAndFailingBus)
{
    auto command = SimTest::Harness::ReadCommand(0x44, 4, 2);
    board.system->InjectFault(0, Sim::Fault::HandshakeStuck, 1, 30);
    EXPECT_EQ(LIBCSI_OK, libcsi_write_gencp(device, command.data(), command.size(), 500)) << "a slow camera is waited for";
    ASSERT_EQ(20u, Read().size());

    board.system->InjectFault(0, Sim::Fault::I2CInterrupted, 3);
    ASSERT_EQ(LIBCSI_OK, libcsi_write_gencp(device, command.data(), command.size(), 200));
    ASSERT_EQ(20u, Read().size()) << "interrupted register reads are repeated";

    ASSERT_EQ(LIBCSI_OK, libcsi_write_gencp(device, command.data(), command.size(), 200));
    board.system->InjectFault(0, Sim::Fault::I2CReadFailure, 1000000);
    std::int32_t result = 0;
    Read(&result, 50);
    EXPECT_EQ(LIBCSI_TIMEOUT, result) << "a handshake that cannot be read is never seen";
    board.system->ClearFaults(0);
}

}

namespace {

TEST(DeviceOpen, AListUpdateKeepsAnOpenDeviceUntilItIsClosedAndStaleHandlesAreRefused)
{
    device_handle_t* device = nullptr;
    {
        VirtualBoard board(kOneCamera);
        ASSERT_EQ(LIBCSI_OK, board.Open(&device));
        EXPECT_EQ(LIBCSI_OK, libcsi_update_device_list()) << "with the camera open";
        libcsi_ipu_restrictions_t restrictions{};
        EXPECT_EQ(LIBCSI_OK, libcsi_get_ipu_restrictions(device, &restrictions)) << "the open device lives on";
        EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
        EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_ipu_restrictions(device, &restrictions))
            << "its entry was replaced: the handle names nothing now";
        EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_close_device(device));

        device_handle_t* again = nullptr;
        ASSERT_EQ(LIBCSI_OK, board.Open(&again)) << "the camera opens anew from the new list";
        EXPECT_EQ(LIBCSI_OK, libcsi_update_device_list());
        device = again; // left open for the library's end to close
    }
    libcsi_ipu_restrictions_t restrictions{};
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_close_device(device)) << "after libcsi_deinit";
    EXPECT_EQ(LIBCSI_INVALID_PARAMETER, libcsi_get_ipu_restrictions(device, &restrictions));
}

}

namespace {

TEST(LibraryInit, AFailedPipeLeavesNoHalfBuiltLibrary)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
#endif
    auto system = std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(kOneCamera));
    Os::Install(system);
    // Warm up what libcsi opens on first use, so that only its pipes are left to fail.
    ASSERT_EQ(LIBCSI_OK, libcsi_init());
    ASSERT_EQ(LIBCSI_OK, libcsi_deinit());
    // One descriptor: the first pipe needs two.
    const std::int32_t result = WithDescriptorsLeft(1, [] { return libcsi_init(); });
    EXPECT_EQ(LIBCSI_ERROR, result);
    EXPECT_EQ(LIBCSI_NOT_INITIALIZED, libcsi_update_device_list()) << "no library was left behind";
    EXPECT_EQ(LIBCSI_OK, libcsi_init()) << "and the next init builds one";
    EXPECT_EQ(LIBCSI_OK, libcsi_update_device_list());
    EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
    Os::Install(nullptr);
}

}
