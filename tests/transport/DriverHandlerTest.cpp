#include "base/BaseException.h"
#include "libcsi/OsSeam.h"
#include "sim/VirtualSystem.h"
#include "support/Logger.h"
#include "support/Sha1.h"
#include "tests/TestSupport.h"
#include "tests/transport/TransportTestSupport.h"
#include "transport/CCIControlChannel.h"
#include "transport/DriverHandler.h"
#include "transport/StreamChannel.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

using namespace QEL;
using CSI::DriverHandler;

namespace {

// Two cameras, a system log in a file, and the handler's change signals as they come.
class Handler : public ::testing::Test {
protected:
    using Change = std::tuple<std::string, unsigned, unsigned>;

    explicit Handler(const char* description = TransportTest::kTwoCameras)
        : system(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(description))),
          logPath(boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("syslog-%%%%-%%%%.txt"))
    {
        Os::Install(system);
        Tools::Logger::Set(std::make_shared<Tools::FileLogger>(logPath.string(), false));
        options.enumerationInterval = 50;
    }
    ~Handler() override
    {
        handler.reset();
        Tools::Logger::Clear();
        Os::Install(nullptr);
        boost::system::error_code ignored;
        boost::filesystem::remove(logPath, ignored);
    }

    void Start()
    {
        handler = DriverHandler::Create(options);
        handler->GetDeviceChangeSignal().Connect([this](const std::string& id, unsigned changed, unsigned state) {
            std::lock_guard<std::mutex> lock(mutex);
            changes.emplace_back(id, changed, state);
            arrived.notify_all();
        });
    }

    bool AwaitChanges(std::size_t count, int milliseconds = 5000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return changes.size() >= count; });
    }

    std::vector<Change> Changes()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return changes;
    }

    std::string SystemLog()
    {
        std::ifstream file(logPath.string());
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    // libcsi reports an availability change only once it watches the attribute.
    void AwaitWatched(const std::string& node)
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!system->IsWatched("/sys/class/video4linux/" + node + "/availability") &&
               std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    std::shared_ptr<Sim::VirtualSystem> system;
    boost::filesystem::path logPath;
    DriverHandler::Options options;
    std::shared_ptr<DriverHandler> handler;
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Change> changes;
};

TEST_F(Handler, ConstructionRefusesAnEventChannelWithoutTransfers)
{
    options.maxTransferCountEventChannel = 0;
    try {
        Start();
        FAIL() << "constructed";
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_INVALID_PARAMETER, e.GetCode());
        EXPECT_EQ("Invalid maximum transfer count for event channel passed.", e.GetText());
    }
}

TEST_F(Handler, TheFirstListIsCompleteWhenConstructionReturns)
{
    Start();
    bool changed = false;
    auto list = handler->GetDeviceList(&changed);
    EXPECT_TRUE(changed);
    ASSERT_EQ(2u, list->GetCount());
    EXPECT_EQ("DEV_LEFT-0001", list->GetId(0));
    EXPECT_EQ("DEV_RIGHT-0002", list->GetId(1));
    handler->GetDeviceList(&changed);
    EXPECT_FALSE(changed) << "a change is reported once";
    try {
        list->GetId(2);
        FAIL();
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_INVALID_INDEX, e.GetCode());
    }
    try {
        list->GetInfo("DEV_NOBODY");
        FAIL();
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_INVALID_ID, e.GetCode());
    }
    auto info = list->GetInfo("DEV_RIGHT-0002");
    EXPECT_EQ("SN-RIGHT", info->GetSerialNumber());
    EXPECT_TRUE(info->IsAvailable());
}

TEST_F(Handler, OpeningBuildsTheChannelsOnceForEachCamera)
{
    Start();
    auto parent = std::make_shared<System::Object>();
    EXPECT_EQ(Err(GC_ERR_INVALID_ID, "Could not find device with given ID."),
              Failure([&] { handler->OpenDevice("DEV_NOBODY", parent, false); }));

    auto device = handler->OpenDevice("DEV_LEFT-0001", parent, false);
    ASSERT_TRUE(device);
    EXPECT_EQ("LEFT-0001", device->GetDeviceKey());
    EXPECT_EQ("SN-LEFT", device->GetSerialNumber());
    EXPECT_TRUE(device->HasDeviceLocation());
    EXPECT_EQ("Left Camera", device->GetControlChannel()->GetModelName());
    EXPECT_TRUE(device->HasStreamChannel()) << "a camera with one stream channel, opened for control";
    EXPECT_FALSE(device->HasEventChannel()) << "camera events are off in this transport";
    EXPECT_EQ(Err(GC_ERR_ERROR, "No event channel available."), Failure([&] { device->GetEventChannel(); }));
    // The guard stands for an open, it refuses none: the interface refuses a
    // second open of a camera, and a read-only one here shares libcsi's camera.
    auto second = handler->OpenDevice("DEV_LEFT-0001", parent, true);
    EXPECT_FALSE(second->HasStreamChannel());
    second.reset();
    const std::uint64_t payload = device->GetStreamChannel()->GetPayloadSize();
    EXPECT_GT(payload, 0u) << "the first open still speaks to the camera after the second closed";
    auto other = handler->OpenDevice("DEV_RIGHT-0002", parent, true);
    EXPECT_FALSE(other->HasStreamChannel()) << "read-only: no stream";
    EXPECT_FALSE(other->HasEventChannel());
    EXPECT_EQ(Err(GC_ERR_ERROR, "No stream channel available."), Failure([&] { other->GetStreamChannel(); }));

    device.reset();
    device = handler->OpenDevice("DEV_LEFT-0001", parent, true);
    EXPECT_FALSE(device->HasStreamChannel()) << "closed, the camera opens again";
}

TEST_F(Handler, DevicesAreFoundByAnyOfTheirNames)
{
    Start();
    auto list = handler->GetDeviceList(nullptr);
    auto right = std::dynamic_pointer_cast<DriverHandler::DeviceInfo>(list->GetInfo("DEV_RIGHT-0002"));
    ASSERT_TRUE(right);
    const std::string location = right->GetDetails()->GetLocation();
    std::string id;
    for (const std::string& name : {std::string("DEV_RIGHT-0002"), std::string("SN-RIGHT"),
                                    std::string("right-0002"), location}) {
        id.clear();
        EXPECT_TRUE(list->Find(name, id)) << name;
        EXPECT_EQ("DEV_RIGHT-0002", id) << name;
    }
    EXPECT_FALSE(list->Find("nobody", id));
}

TEST_F(Handler, AvailabilityChangesAreSignalled)
{
    Start();
    AwaitWatched("video1");
    system->SetAvailable(1, false);
    ASSERT_TRUE(AwaitChanges(1));
    EXPECT_EQ(Change("DEV_RIGHT-0002", 2, 1), Changes()[0]);
    bool changed = false;
    auto list = handler->GetDeviceList(&changed);
    EXPECT_FALSE(list->GetInfo("DEV_RIGHT-0002")->IsAvailable());
    system->SetAvailable(1, true);
    ASSERT_TRUE(AwaitChanges(2));
    EXPECT_EQ(Change("DEV_RIGHT-0002", 2, 3), Changes()[1]);
    EXPECT_NE(std::string::npos, SystemLog().find("OnDeviceDiscovery: Device 'DEV_RIGHT-0002' new availability: 0"));
}

TEST_F(Handler, AnotherCameraInThePlaceOfOneIsAGoingAndAComing)
{
    Start();
    system->SetIdentity(0, "device_guid", "NEW-0003");
    ASSERT_TRUE(AwaitChanges(2));
    const auto seen = Changes();
    EXPECT_EQ(Change("DEV_LEFT-0001", 3, 0), seen[0]);
    EXPECT_EQ(Change("DEV_NEW-0003", 3, 3), seen[1]);
    auto list = handler->GetDeviceList(nullptr);
    ASSERT_EQ(2u, list->GetCount());
    EXPECT_EQ("DEV_NEW-0003", list->GetId(0));
}

TEST_F(Handler, WithoutEnumerationOnlyDiscoveryTriggersARun)
{
    options.enumerationEnabled = false;
    Start();
    // The first build in the constructor, then the thread's own first run at its start.
    ASSERT_TRUE(Eventually([&] { return handler->GetEnumerationRuns() == 2; })) << handler->GetEnumerationRuns();
    system->SetIdentity(0, "device_guid", "NEW-0003");
    handler->OnDeviceDiscovery("no-such-port", 0);
    // An observation window of six enumeration intervals, in which time alone would have run it.
    std::this_thread::sleep_for(std::chrono::milliseconds(6 * options.enumerationInterval));
    EXPECT_EQ(2u, handler->GetEnumerationRuns()) << "neither time nor an unknown port starts a run";
    EXPECT_TRUE(Changes().empty());
    AwaitWatched("video1");
    system->SetAvailable(1, false);
    ASSERT_TRUE(AwaitChanges(3));
    const auto seen = Changes();
    EXPECT_EQ(Change("DEV_LEFT-0001", 3, 0), seen[0]);
    EXPECT_EQ(Change("DEV_NEW-0003", 3, 3), seen[1]);
    EXPECT_EQ(Change("DEV_RIGHT-0002", 2, 1), seen[2]);
}

const char* kNoGuid = R"(
[camera0]
guid =
serial_number = SN-ANON
bus_timing = 0
)";

class AnonymousHandler : public Handler {
protected:
    AnonymousHandler() : Handler(kNoGuid) {}
};

TEST_F(AnonymousHandler, ACameraWithoutGuidIsNamedByTheHashOfItsKey)
{
    Start();
    auto list = handler->GetDeviceList(nullptr);
    ASSERT_EQ(1u, list->GetCount());
    const std::string id = list->GetId(0);
    EXPECT_EQ("DEV_" + Tools::Sha1HexUpper(""), id);
    EXPECT_EQ(44u, id.size()) << "40 hex digits behind the prefix";
    EXPECT_EQ(std::string::npos, id.find_first_of("abcdef", 4));
}

class EmptyBoard : public Handler {
protected:
    EmptyBoard() : Handler("[system]\nboard = imx8m\n") {}
};

TEST_F(EmptyBoard, NoCameraLeavesTheListEmpty)
{
    Start();
    ASSERT_TRUE(Eventually([&] { return handler->GetEnumerationRuns() >= 2; })) << "the thread looked, too";
    bool changed = true;
    EXPECT_EQ(0u, handler->GetDeviceList(&changed)->GetCount());
    EXPECT_FALSE(changed);
    handler.reset();
    EXPECT_NE(std::string::npos, SystemLog().find("Could not get device list."));
}

}
