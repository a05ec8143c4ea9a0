#include "base/BaseException.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "sim/CameraMap.h"
#include "tests/sim/SimHarness.h"
#include "tests/TestSupport.h"
#include "tests/transport/TransportTestSupport.h"
#include "transport/LibCSIWrapper_Impl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

using namespace QEL;
using LibCSI::LibCSIWrapper_Impl;

namespace {

class Wrapper : public TransportTest::Board {
protected:
    Wrapper() { CreateLibrary(); }

    std::shared_ptr<LibCSIWrapper_Impl> OpenCamera(const std::string& guid, std::int32_t channel = LibCSI::CONTROL_CHANNEL)
    {
        auto wrapper = std::make_shared<LibCSIWrapper_Impl>();
        EXPECT_EQ(0, wrapper->StartChannel(guid, channel, nullptr));
        return wrapper;
    }
};

TEST_F(Wrapper, CamerasAreListedWithTheirIdentity)
{
    LibCSIWrapper_Impl::InfoTable table;
    auto wrapper = std::make_shared<LibCSIWrapper_Impl>();
    wrapper->GetDeviceList(table);
    ASSERT_EQ(2u, table.size());
    const auto& left = *table.at(0);
    EXPECT_EQ("LEFT-0001", left.GetDeviceGuid());
    EXPECT_EQ("Left Camera", left.GetModelName());
    EXPECT_EQ("SN-LEFT", left.GetSerialNumber());
    EXPECT_EQ(1, left.GetAvailability());
    EXPECT_TRUE(left.IsGenCPModeSupported());
    EXPECT_FALSE(left.GetPortID().empty());
    EXPECT_NE(left.GetPortID(), table.at(1)->GetPortID());
    for (std::int32_t id = INFO_Availability; id <= INFO_PortID; ++id)
        EXPECT_TRUE(left.IsValid(static_cast<LibCSI::InfoID>(id))) << "info " << id;

    std::shared_ptr<LibCSI::CSIInfo> found;
    EXPECT_TRUE(wrapper->GetDeviceInfo("RIGHT-0002", found));
    EXPECT_EQ(table.at(1), found);
    EXPECT_FALSE(wrapper->GetDeviceInfo("NOBODY", found));
}

TEST_F(Wrapper, AnotherCameraAtTheSameIndexGetsANewInfo)
{
    auto wrapper = std::make_shared<LibCSIWrapper_Impl>();
    LibCSIWrapper_Impl::InfoTable before, after;
    wrapper->GetDeviceList(before);
    system->SetIdentity(0, "device_guid", "SWAPPED-0003");
    wrapper->GetDeviceList(after);
    ASSERT_EQ(2u, after.size());
    EXPECT_NE(before.at(0), after.at(0));
    EXPECT_EQ("SWAPPED-0003", after.at(0)->GetDeviceGuid());
    EXPECT_EQ(before.at(1), after.at(1)) << "the unchanged camera keeps its info";
}

TEST_F(Wrapper, TwoWrappersOfOneCameraShareItsHandle)
{
    auto first = OpenCamera("LEFT-0001");
    auto second = OpenCamera("LEFT-0001");
    EXPECT_EQ(-1, first->OpenDevice(0, "LEFT-0001")) << "one device per wrapper";
    EXPECT_EQ(1, system->GetFirmware(0).GetDeviceMode());
    first->CloseDevice();
    EXPECT_FALSE(first->IsOpen());
    EXPECT_EQ(1, system->GetFirmware(0).GetDeviceMode()) << "the second still uses it";
    std::uint32_t in = 0, out = 0;
    EXPECT_TRUE(second->GetGenCPBufferSizes(in, out));
    second->CloseDevice();
    EXPECT_EQ(0, system->GetFirmware(0).GetDeviceMode()) << "the last close closes the camera";
}

TEST_F(Wrapper, AnUnlistedGuidOpensNothing)
{
    auto wrapper = std::make_shared<LibCSIWrapper_Impl>();
    EXPECT_EQ(-1, wrapper->StartChannel("NOBODY", LibCSI::CONTROL_CHANNEL, nullptr));
    EXPECT_FALSE(wrapper->IsOpen());
    EXPECT_EQ(0, system->GetFirmware(0).GetDeviceMode());
    EXPECT_EQ(0, system->GetFirmware(1).GetDeviceMode());
}

TEST_F(Wrapper, ResetOnCloseRestartsTheCamera)
{
    auto wrapper = OpenCamera("RIGHT-0002");
    wrapper->SetResetOnClose("RIGHT-0002", true);
    wrapper->CloseDevice();
    EXPECT_EQ(0, system->GetFirmware(1).GetDeviceMode());
    auto again = OpenCamera("RIGHT-0002");
    EXPECT_TRUE(again->IsOpen()) << "a reset camera opens again";
}

TEST_F(Wrapper, ControlTrafficGoesThroughGenCPAndTheMediaLog)
{
    auto wrapper = OpenCamera("LEFT-0001");
    auto command = SimTest::Harness::ReadCommand(Sim::CameraMap::Width, 4, 21);
    LibCSI::ControlTransfer send;
    send.buffer = command.data();
    send.size = static_cast<std::uint32_t>(command.size());
    wrapper->SendControlCommand(send);
    EXPECT_EQ(0u, send.status);
    EXPECT_EQ(command.size(), send.bytesDone);

    std::vector<std::uint8_t> answer(1024);
    LibCSI::ControlTransfer read;
    read.buffer = answer.data();
    read.size = static_cast<std::uint32_t>(answer.size());
    wrapper->ReadControlAnswer(read);
    ASSERT_EQ(0u, read.status);
    ASSERT_EQ(20u, read.bytesDone);
    answer.resize(read.bytesDone);
    EXPECT_TRUE(SimTest::Harness::CrcValid(answer));
    EXPECT_EQ(21, SimTest::Harness::Field16(answer, 14));
    EXPECT_EQ(64u, static_cast<std::uint32_t>(answer[16]) | answer[17] << 8) << "the width, little-endian";

    system->InjectFault(0, Sim::Fault::HandshakeStuck, 1, 0);
    LibCSI::ControlTransfer stuck = send;
    stuck.status = LibCSI::TransferPending;
    wrapper->SendControlCommand(stuck);
    EXPECT_EQ(LibCSI::TransferFailed, stuck.status);
    system->ClearFaults(0);

    wrapper->CloseDevice();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("SendControlCommand:\nDump buffer: length=" + std::to_string(command.size())));
    EXPECT_NE(std::string::npos, log.find("ReadControlAnswer:\nDump buffer: length=20"));
    EXPECT_NE(std::string::npos, log.find("LibCSIWrapper_Impl call of libcsi_write_gencp failed. Result="));
    EXPECT_NE(std::string::npos, log.find("StartReceiveData CONTROL_CHANNEL_OUT OK."));
}

TEST_F(Wrapper, AClosedWrapperRefusesWithTheHandleCode)
{
    auto wrapper = std::make_shared<LibCSIWrapper_Impl>();
    std::uint8_t byte = 0;
    LibCSI::ControlTransfer transfer;
    transfer.buffer = &byte;
    transfer.size = 1;
    try {
        wrapper->SendControlCommand(transfer);
        FAIL() << "no exception";
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_INVALID_HANDLE, e.GetCode());
        EXPECT_EQ(0u, e.GetText().find("Error while sending control command. Invalid device handle "));
    }
    EXPECT_THROW(wrapper->GetCCILinkSpeed(), Base::Exception);
    EXPECT_THROW(wrapper->GetDeliveredFrames(), Base::Exception);
    EXPECT_THROW(wrapper->QueueFrame(nullptr), Base::Exception);
    std::string version;
    EXPECT_FALSE(wrapper->GetDriverVersion(version)) << "version calls answer false";

    auto open = OpenCamera("LEFT-0001");
    transfer.buffer = nullptr;
    try {
        open->ReadControlAnswer(transfer);
        FAIL() << "no exception";
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_INVALID_PARAMETER, e.GetCode());
    }
}

TEST_F(Wrapper, QueriesOfAnOpenCamera)
{
    auto wrapper = OpenCamera("LEFT-0001");
    EXPECT_EQ(1u, wrapper->GetCCILinkSpeed()) << "400 kHz";
    EXPECT_EQ(3u, wrapper->GetMinAnnouncedFrames());
    EXPECT_EQ(1024u, wrapper->GetMaximumPacketSize());
    const auto lanes = wrapper->GetSupportedLaneCounts();
    EXPECT_FALSE(lanes.empty());
    const auto ranges = wrapper->GetClockRanges();
    EXPECT_EQ(lanes.size(), ranges.size());
    for (const auto& range : ranges)
        EXPECT_LE(range.second.first, range.second.second);
    EXPECT_TRUE(wrapper->GetSupportedDataIdentifiers().count(49)) << "bit 49 of the first mask";
    std::uint32_t xMin = 0, xMax = 0, xInc = 0, yMin = 0, yMax = 0, yInc = 0, alignment = 0;
    ASSERT_TRUE(wrapper->GetIPURestrictions(xMin, xMax, xInc, yMin, yMax, yInc, alignment));
    EXPECT_EQ(192u, xInc);
    EXPECT_EQ(256u, alignment);
    std::uint8_t laneCount = 2;
    std::uint32_t clock = 400000000;
    ASSERT_TRUE(wrapper->SetCSIConfig(laneCount, clock));
    std::uint8_t readLanes = 0;
    std::uint32_t readClock = 0;
    ASSERT_TRUE(wrapper->GetCSIConfig(readLanes, readClock));
    EXPECT_EQ(laneCount, readLanes);
    EXPECT_EQ(clock, readClock);
    std::string version;
    ASSERT_TRUE(wrapper->GetApiVersion(version));
    EXPECT_EQ("1.1.0.0", version);
    ASSERT_TRUE(wrapper->GetDriverVersion(version));
    EXPECT_EQ(std::string::npos, version.find_first_not_of("0123456789.")) << version;
    EXPECT_EQ(0u, wrapper->GetDeliveredFrames());
    EXPECT_NO_THROW(wrapper->ResetStatistics());
    EXPECT_EQ(0, wrapper->SetLinkSpeed(1));
}

TEST_F(Wrapper, DiscoveryReachesTheSignal)
{
    std::mutex mutex;
    std::vector<std::pair<std::string, int>> seen;
    auto connection = library->GetDiscoverySignal().Connect([&](const char* port, unsigned char available) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.emplace_back(port, available);
    });
    std::atomic<int> thrown{0};
    auto throwing = library->GetDiscoverySignal().Connect([&](const char*, unsigned char) {
        ++thrown;
        throw 1;
    });
    LibCSIWrapper_Impl::InfoTable table;
    std::make_shared<LibCSIWrapper_Impl>()->GetDeviceList(table);
    // A change before libcsi watches the attribute would be its starting value.
    ASSERT_TRUE(Eventually([&] { return system->IsWatched("/sys/class/video4linux/video1/availability"); }));
    system->SetAvailable(1, false);
    ASSERT_TRUE(Eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return !seen.empty();
    }));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(table.at(1)->GetPortID(), seen[0].first);
        EXPECT_EQ(0, seen[0].second);
    }
    EXPECT_TRUE(Eventually([&] { return thrown > 0; })) << "the throwing slot ran";
    connection.Disconnect();
    throwing.Disconnect();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("DiscoveryCallback portID=" + table.at(1)->GetPortID() + ", availability=0"));
    // The wrapper keeps a slot's exception from libcsi's discovery thread, which
    // would report it (libcsi's reports reach the same log before the close ends).
    EXPECT_EQ(std::string::npos, log.find("Exception in discovery callback")) << log;
}

// Frames through the wrapper: records in, records back at their callback.
struct FrameSink {
    static void OnFrame(LibCSI::FrameRecord* record)
    {
        auto* sink = static_cast<FrameSink*>(record->context);
        std::lock_guard<std::mutex> lock(sink->mutex);
        sink->statuses.push_back(record->status);
        if (sink->requeue)
            sink->wrapper->QueueFrame(record);
        sink->changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::uint32_t> statuses;
    std::atomic<bool> requeue{true};
    LibCSIWrapper_Impl* wrapper = nullptr;
};

TEST_F(Wrapper, FramesReachTheirRecords)
{
    auto wrapper = OpenCamera("LEFT-0001", LibCSI::ENDPOINT_MODE_SI);
    const auto geometry = system->GetFirmware(0).Geometry();
    FrameSink sink;
    sink.wrapper = wrapper.get();
    std::deque<LibCSI::FrameRecord> records(3);
    for (auto& record : records) {
        record.callback = &FrameSink::OnFrame;
        record.context = &sink;
        record.frame.m_nLeaderSize = Sim::CameraMap::MaxLeaderSize;
        record.frame.m_nPayloadSize = geometry.payloadSize;
        record.frame.m_nTrailerSize = Sim::CameraMap::MaxTrailerSize;
        ASSERT_NE(nullptr, wrapper->AllocAndAnnounceFrame(geometry.ipuX, geometry.ipuY, &record));
        EXPECT_NE(0u, record.frame.m_pPayload);
        ASSERT_EQ(0, wrapper->QueueFrame(&record));
    }
    EXPECT_EQ(LIBCSI_FRAME_QUEUED, wrapper->QueueFrame(&records[0])) << "libcsi's result comes back as it is";
    ASSERT_EQ(0, wrapper->StartStream(0, nullptr));
    system->GetFirmware(0).StartAcquisition();
    {
        std::unique_lock<std::mutex> lock(sink.mutex);
        ASSERT_TRUE(sink.changed.wait_for(lock, std::chrono::seconds(10), [&] { return sink.statuses.size() >= 50; }));
    }
    sink.requeue = false;
    EXPECT_EQ(0, wrapper->StopStream());
    EXPECT_GE(wrapper->GetDeliveredFrames(), 50u);
    {
        std::lock_guard<std::mutex> lock(sink.mutex);
        for (std::size_t i = 0; i < 50; ++i)
            ASSERT_EQ(static_cast<std::uint32_t>(LIBCSI_FRAME_VALID), sink.statuses[i]);
    }
    EXPECT_EQ(0, wrapper->FlushFrames());
    for (auto& record : records)
        EXPECT_EQ(0, wrapper->RevokeFrame(record.handle));
    wrapper->CloseDevice();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("StartReceiveData ENDPOINT_MODE_SI OK."));
    EXPECT_NE(std::string::npos, log.find("StopReceiveData ENDPOINT_MODE_SI OK."));
}

TEST_F(Wrapper, AStreamThatCannotStartIsStoppedAgain)
{
    auto wrapper = OpenCamera("LEFT-0001", LibCSI::ENDPOINT_MODE_SI);
    EXPECT_EQ(LIBCSI_NOT_ENOUGH_FRAMES, wrapper->StartStream(0, nullptr));
    wrapper->CloseDevice();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("Start channel deviceNumber = 0, ENDPOINT_MODE_SI."));
    EXPECT_NE(std::string::npos, log.find("Start ENDPOINT_MODE_SI failed."));
    EXPECT_NE(std::string::npos, log.find("LibCSIWrapper_Impl call of libcsi_start_stream failed. Result=-15"));
}

TEST_F(Wrapper, LibcsiReportsReachTheMediaLog)
{
    auto wrapper = OpenCamera("LEFT-0001");
    std::uint8_t lanes = 3;
    std::uint32_t clock = 1;
    system->FailIoctl(0, "VIDIOC_S_CSI_CONFIG", EIO, 1);
    EXPECT_FALSE(wrapper->SetCSIConfig(lanes, clock));
    EXPECT_EQ(3, lanes) << "outputs are left alone";
    wrapper->CloseDevice();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("LIBCSI: ")) << "libcsi's own error lines come through its report callback";
    EXPECT_EQ(std::string::npos, log.find("\n\n")) << "without their line feed";
}

// libcsi belongs to whoever started it: a wrapper whose libcsi_init failed
// started nothing and must not end the library that another user starts.
class WrapperWithoutLibrary : public TransportTest::Board {};

TEST_F(WrapperWithoutLibrary, AWrapperWhoseInitFailedLeavesLibcsiToItsOwner)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
#endif
    // Warm up what libcsi opens on first use, so that only its pipes are left to fail.
    ASSERT_EQ(LIBCSI_OK, libcsi_init());
    ASSERT_EQ(LIBCSI_OK, libcsi_deinit());
    {
        LibCSIWrapper_Impl wrapper;
        // One descriptor: libcsi's first pipe needs two.
        const std::int32_t result = WithDescriptorsLeft(1, [&] { return wrapper.Init(); });
        EXPECT_NE(0, result);
        ASSERT_EQ(LIBCSI_OK, libcsi_init()) << "another user starts libcsi";
    }
    EXPECT_EQ(LIBCSI_OK, libcsi_update_device_list()) << "the failed wrapper ended the library it did not start";
    EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
}

}
