#include "base/BaseException.h"
#include "gencp/AckException.h"
#include "transport/CCIControlChannel.h"
#include "sim/CameraMap.h"
#include "support/Settings.h"
#include "support/Sha1.h"
#include "tests/TestSupport.h"
#include "tests/transport/TransportTestSupport.h"
#include "transport/Endpoint.h"
#include "transport/EndpointHandler.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSIWrapper_Impl.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <fstream>

using namespace QEL;
namespace fs = boost::filesystem;

namespace {

// The control channel of the left virtual camera over its two endpoints.
class CCIChannel : public TransportTest::Board {
protected:
    CCIChannel() { CreateLibrary(); }

    void OpenEndpoints(std::uint32_t maxTransferCount = 1)
    {
        device = library->OpenDevice("LEFT-0001", library);
        out = LibCSI::Endpoint::Open(device, LibCSI::CONTROL_CHANNEL);
        in = LibCSI::Endpoint::Open(device, LibCSI::CONTROL_CHANNEL_IN);
        const std::uint32_t packet = out->GetMaxPacketSize();
        outHandler = LibCSI::EndpointHandler::Create(out, maxTransferCount, packet, LibCSI::CONTROL_CHANNEL);
        inHandler = LibCSI::EndpointHandler::Create(in, maxTransferCount, packet, LibCSI::CONTROL_CHANNEL_IN);
    }

    std::shared_ptr<TransportLayer::ControlChannel> Open(const std::shared_ptr<const Settings>& settings = nullptr)
    {
        OpenEndpoints();
        return TransportLayer::ControlChannel::Create(inHandler, outHandler, settings, 0, 1000, false);
    }

    ~CCIChannel() override { CloseAll(); }

    void CloseAll()
    {
        inHandler.reset();
        outHandler.reset();
        in.reset();
        out.reset();
        device.reset();
    }

    std::shared_ptr<LibCSI::Device> device;
    std::shared_ptr<LibCSI::Endpoint> out, in;
    std::shared_ptr<LibCSI::EndpointHandler> outHandler, inHandler;
};

TEST_F(CCIChannel, TheCameraAnswersThroughTheEndpoints)
{
    auto channel = Open();
    EXPECT_EQ(1u, outHandler->GetDirection());
    EXPECT_EQ(0u, inHandler->GetDirection());
    EXPECT_EQ("Left Camera", channel->GetModelName());
    EXPECT_EQ("SN-LEFT", channel->GetSerialNumber());
    EXPECT_EQ(1u, channel->GetStreamChannelCount());
    EXPECT_EQ((std::set<std::uint8_t>{1, 2, 4}), channel->GetDeviceLaneCounts()) << "lane mask 0xB";
    EXPECT_EQ(64u, channel->ReadRegister32(Sim::CameraMap::Width));
    channel->WriteRegister32(Sim::CameraMap::Width, 48);
    EXPECT_EQ(48u, channel->ReadRegister32(Sim::CameraMap::Width));
    EXPECT_EQ(48u, system->GetFirmware(0).ReadValue(Sim::CameraMap::Width)) << "the camera itself changed";

    // The document is read in acknowledges that fit the camera's buffer, and its hash matches.
    const auto entry = channel->GetManifestEntry(0);
    ASSERT_EQ(20u, entry.sha1.size());
    EXPECT_EQ(Sim::CameraMap::XmlFile, entry.address);
    std::vector<std::uint8_t> document(entry.size);
    channel->ReadMemory(entry.address, document.data(), document.size());
    EXPECT_EQ(entry.sha1, Tools::Sha1Digest(document.data(), document.size()));

    EXPECT_EQ(Sim::CameraMap::Sirm, channel->GetSIRMAddress(0));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid index passed."), Failure([&] { channel->GetSIRMAddress(1); }));
    channel->EnableStream(0, true);
    EXPECT_EQ(1u, system->GetFirmware(0).ReadValue(Sim::CameraMap::Sirm) & 1);
    channel->EnableStream(0, false);
    EXPECT_EQ(0u, system->GetFirmware(0).ReadValue(Sim::CameraMap::Sirm) & 1);
    EXPECT_EQ(Err(GC_ERR_ERROR, "No EIRM supported."), Failure([&] { channel->GetEIRMAddress(); }));
    EXPECT_FALSE(channel->GetEventSupport());
    EXPECT_GT(channel->GetLinkBytesPerSecond(), 0x3000u);

    channel.reset();
    CloseAll();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("ControlChannel::Init: ASIC register dump:"));
    EXPECT_NE(std::string::npos, log.find("ControlChannel::Init: Camera supports DPHY reset."));
    EXPECT_NE(std::string::npos, log.find("ControlChannel::Init: Effective bytes per second: "));
}

TEST_F(CCIChannel, CameraFaultsReachTheCommandOrAreRepeated)
{
    auto channel = Open();
    channel->GetModelName();

    system->InjectFault(0, Sim::Fault::StaleRequestID, 1, 0);
    EXPECT_EQ(64u, channel->ReadRegister32(Sim::CameraMap::Width)) << "a stale answer is asked for again";

    system->InjectFault(0, Sim::Fault::BadAckCRC, 1, 0);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Received data didn't pass the CRC32 check."),
              Failure([&] { channel->ReadRegister32(Sim::CameraMap::Width); }));

    system->InjectFault(0, Sim::Fault::GenCPStatus, 1, 0x8006);
    EXPECT_EQ(Err(GC_ERR_ACCESS_DENIED, "Device reported an error while executing a request"),
              Failure<Base::GenCP::AckException>([&] { channel->ReadRegister32(Sim::CameraMap::Width); }));

    system->InjectFault(0, Sim::Fault::PendingAck, 1, 50);
    EXPECT_EQ(64u, channel->ReadRegister32(Sim::CameraMap::Width)) << "a pending acknowledge extends the wait";

    system->InjectFault(0, Sim::Fault::HandshakeStuck, 1, 0);
    try {
        channel->ReadRegister32(Sim::CameraMap::Width);
        ADD_FAILURE() << "a camera that takes no packet fails the command";
    } catch (const System::Exception& e) {
        EXPECT_EQ(0u, e.GetMessage().find("Could not submit transfer (Reason: ")) << e.GetMessage();
    }
}

TEST_F(CCIChannel, SettingsChooseLanesAndClockWithADPhyReset)
{
    const fs::path folder = fs::temp_directory_path() / fs::unique_path("cci-%%%%-%%%%");
    fs::create_directories(folder);
    OpenEndpoints();
    const std::string port = outHandler->GetPortID();
    std::uint8_t lanes = 0;
    std::uint32_t clock = 0;
    ASSERT_TRUE(outHandler->GetCSIConfig(lanes, clock));
    const auto ranges = outHandler->GetClockRanges();
    ASSERT_TRUE(ranges.count(4));
    const std::uint32_t wanted = (ranges.at(4).first + ranges.at(4).second) / 2;
    std::ofstream((folder / "producer.xml").string())
        << "<Settings><Ports><Port ID=\"" << port << "\"><CSILaneCount>4</CSILaneCount><CSIClockFrequency>" << wanted
        << "</CSIClockFrequency></Port></Ports></Settings>";
    auto settings = Settings::Load((folder / "producer.cti").string());
    fs::remove_all(folder);

    auto channel = TransportLayer::ControlChannel::Create(inHandler, outHandler, settings, 0, 1000, false);
    EXPECT_EQ(4u, channel->GetCurrentLaneCount());
    EXPECT_EQ(wanted, channel->GetClockFrequency());
    ASSERT_TRUE(outHandler->GetCSIConfig(lanes, clock));
    EXPECT_EQ(4u, lanes) << "the host follows the camera";
    EXPECT_EQ(wanted, clock);
    EXPECT_EQ(0u, system->GetFirmware(0).ReadValue(Sim::CameraMap::Sbrm + 48)) << "the DPHY reset is released";

    channel.reset();
    CloseAll();
    const std::string log = MediaLogAfterClose();
    EXPECT_NE(std::string::npos, log.find("ControlChannel::Init: Settings file lane count : 4"));
    EXPECT_NE(std::string::npos, log.find("ControlChannel::Init: Get device CSI-2 clock frequency: " +
                                          std::to_string(wanted)));
}

TEST_F(CCIChannel, HandlersRefuseWhatTheyCannotCarry)
{
    OpenEndpoints();
    std::vector<std::uint8_t> buffer(outHandler->GetMaxPacketSize() + 1);
    EXPECT_THROW(outHandler->Submit(buffer.data(), 0, nullptr), System::Exception);
    EXPECT_THROW(outHandler->Submit(buffer.data(), buffer.size(), nullptr), System::Exception)
        << "above the maximum transfer size";
    EXPECT_THROW(inHandler->Submit(buffer.data(), 16, nullptr), System::Exception)
        << "an in transfer is a multiple of the packet size";
    EXPECT_THROW(TransportLayer::ControlChannel::Create(outHandler, inHandler, nullptr, 0, 1000, false),
                 Base::Exception)
        << "directions swapped";
    EXPECT_THROW(LibCSI::EndpointHandler::Create(out, 0, 1024, LibCSI::CONTROL_CHANNEL), System::Exception);
    EXPECT_THROW(LibCSI::EndpointHandler::Create(nullptr, 1, 1024, LibCSI::CONTROL_CHANNEL), System::Exception);
    EXPECT_THROW(LibCSI::Endpoint::Open(device, 6), System::Exception);
    EXPECT_TRUE(outHandler->IsStalled());
    EXPECT_TRUE(outHandler->HasTransferSlot());
}

// A handler whose transfers complete only when the test says so.
class HeldHandler : public LibCSI::EndpointHandler {
public:
    using EndpointHandler::EndpointHandler;
    void Submit(void*, std::size_t, const Callback& callback) override { held = callback; }
    Callback held;
};

TEST_F(CCIChannel, ATransferIsCompleteOnlyWhenItsEndpointSaysSo)
{
    OpenEndpoints();
    auto handler = std::make_shared<HeldHandler>(out, 1, 1024, LibCSI::CONTROL_CHANNEL);
    std::uint8_t data[16] = {};
    TransportLayer::Transfer transfer(handler, data, sizeof data);
    EXPECT_FALSE(transfer.IsComplete());
    EXPECT_EQ(Err(GC_ERR_ERROR, "The transfer is not complete yet."), Failure([&] { transfer.GetResult(); }));
    EXPECT_FALSE(transfer.WaitUntil(System::Clock::now() + std::chrono::milliseconds(5)));
    handler->held(TransportLayer::TransferStatusFailure, 7);
    transfer.Wait();
    EXPECT_EQ(TransportLayer::TransferStatusFailure, transfer.GetResult());
    EXPECT_EQ(7, transfer.GetTransferred());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No endpoint handler passed."),
              Failure([&] { TransportLayer::Transfer(nullptr, data, sizeof data); }));
}

TEST_F(CCIChannel, TheStreamRegistersOfTheSIRM)
{
    auto channel = Open();
    const auto geometry = system->GetFirmware(0).Geometry();
    EXPECT_EQ(52u, channel->GetMaxLeaderSize(0));
    EXPECT_EQ(32u, channel->GetMaxTrailerSize(0));
    EXPECT_EQ(geometry.payloadSize, channel->GetPayloadSize(0));
    EXPECT_EQ((std::set<std::uint32_t>{42, 49}), channel->GetDeviceDataIdentifiers(0)) << "bits 42 and 49 of word 0";
    std::set<std::uint32_t> host, camera;
    channel->GetCSIDataIdentifiers(0, host, camera);
    EXPECT_FALSE(host.empty()) << "libcsi's";
    EXPECT_EQ(camera, channel->GetDeviceDataIdentifiers(0));
    channel->SetDataIdentifier(0, 49);
    EXPECT_EQ(49u, channel->GetDataIdentifier(0));
    EXPECT_EQ(geometry.ipuX, channel->GetIPUX(0));
    EXPECT_EQ(geometry.ipuY, channel->GetIPUY(0));
    EXPECT_EQ(64u, channel->GetImageSizeX(0));
    EXPECT_EQ(16u, channel->GetImageSizeY(0));
    EXPECT_EQ(0u, channel->GetImageOffsetX(0));
    EXPECT_EQ(0u, channel->GetImageOffsetY(0));
    EXPECT_EQ(0u, channel->GetImagePaddingX(0));
    EXPECT_EQ(geometry.format->pfnc, channel->GetImagePixelFormat(0));
    EXPECT_EQ(1u, channel->GetImagePayloadType(0));
    EXPECT_EQ(geometry.imageBytes, channel->GetValidPayloadSize(0));
    EXPECT_EQ(0u, channel->GetChunkLayoutID(0));
    EXPECT_FALSE(channel->IsStreamEnabled(0));
    channel->EnableStream(0, true);
    EXPECT_TRUE(channel->IsStreamEnabled(0));
    EXPECT_TRUE(system->GetFirmware(0).IsAcquiring()) << "the camera streams once enabled";
    channel->EnableStream(0, false);
    EXPECT_FALSE(channel->IsStreamEnabled(0));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid index passed."), Failure([&] { channel->GetIPUX(1); }));
}

// A handler that reports a link speed code libcsi never gives.
class OddSpeedHandler : public LibCSI::EndpointHandler {
public:
    using EndpointHandler::EndpointHandler;
    std::uint32_t GetLinkSpeed() override { return 3; }
};

TEST_F(CCIChannel, AnUnknownLinkSpeedEndsTheOpen)
{
    OpenEndpoints();
    auto odd = std::make_shared<OddSpeedHandler>(out, 1, out->GetMaxPacketSize(), LibCSI::CONTROL_CHANNEL);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Unknown link speed speed found."),
              Failure([&] { TransportLayer::ControlChannel::Create(inHandler, odd, nullptr, 0, 1000, false); }));
}

TEST_F(CCIChannel, EventsGoToTheWaitingBufferThatFitsThem)
{
    device = library->OpenDevice("LEFT-0001", library);
    auto events = LibCSI::Endpoint::Open(device, LibCSI::EVENT_CHANNEL);
    auto handler = LibCSI::EndpointHandler::Create(events, 4, 1024, LibCSI::EVENT_CHANNEL);

    std::vector<std::pair<TransportLayer::TransferResult, std::int32_t>> completed;
    auto record = [&](TransportLayer::TransferResult result, std::int32_t size) { completed.emplace_back(result, size); };
    std::uint8_t small[4] = {}, large[16] = {};
    handler->SubmitEvent(small, sizeof small, record);
    handler->SubmitEvent(large, sizeof large, record);
    const std::uint8_t event[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    events->EnqueueEvent(event, sizeof event);
    events->EnqueueEvent(event, sizeof event);
    events->EnqueueEvent(event, sizeof event);  // nobody waits: logged and lost
    ASSERT_EQ(2u, completed.size());
    EXPECT_EQ(std::make_pair(TransportLayer::TransferFailure, 0), completed[0]) << "too small a buffer";
    EXPECT_EQ(std::make_pair(TransportLayer::TransferSuccess, 8), completed[1]);
    EXPECT_EQ(0, std::memcmp(large, event, sizeof event));

    handler->SubmitEvent(large, sizeof large, record);
    handler->AbortEvents();
    ASSERT_EQ(3u, completed.size());
    EXPECT_EQ(std::make_pair(TransportLayer::TransferSuccess, 0), completed[2]) << "an abort completes it empty";

    handler.reset();
    events.reset();
    device.reset();
    EXPECT_NE(std::string::npos,
              MediaLogAfterClose().find("Endpoint::EnqueueEvent Transfer not found or found Transfer = NULL"));
}

}
