#include "base/Exception.h"
#include "tests/transport/TransportTestSupport.h"
#include "transport/LibCSIDevice.h"

#include <gtest/gtest.h>

using namespace QEL;
using TransportTest::Board;

namespace {

std::string MessageOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const QEL::System::Exception& e) {
        return e.GetMessage();
    }
    return "<no exception>";
}

using LibraryModel = Board;

TEST_F(LibraryModel, DeviceListHoldsTheGuidsInIndexOrder)
{
    CreateLibrary();
    auto list = library->GetDeviceList(0xDEADBEEF);
    ASSERT_EQ(2, list->GetCount());
    EXPECT_EQ("LEFT-0001", list->GetKey(0));
    EXPECT_EQ("RIGHT-0002", list->GetKey(1));
    EXPECT_EQ("Invalid device number passed.", MessageOf([&] { list->GetKey(-1); }));
    EXPECT_EQ("Invalid device number passed.", MessageOf([&] { list->GetKey(2); }));
}

TEST_F(LibraryModel, DevicesDescribeTheirCamera)
{
    CreateLibrary();
    auto device = library->CreateDevice("RIGHT-0002");
    auto descriptor = device->GetDeviceDescriptor();
    EXPECT_EQ("SN-RIGHT", descriptor->GetSerialNumber());
    EXPECT_EQ("RIGHT-0002", descriptor->GetDeviceGuid());
    EXPECT_EQ(1, descriptor->GetAvailability());
    EXPECT_EQ(1, descriptor->GetConfigurationCount());
    EXPECT_EQ(0, descriptor->GetClass());
    ASSERT_EQ(1u, device->GetConfigurations().size());
    EXPECT_EQ(1, device->GetConfigurations()[0]->GetInterfaceCount());
    EXPECT_FALSE(device->GetWrapper()->IsOpen()) << "a look at a camera opens nothing";
    EXPECT_EQ(0, system->GetFirmware(1).GetDeviceMode());
}

TEST_F(LibraryModel, RefusalsComeBeforeAnythingIsCreated)
{
    CreateLibrary();
    EXPECT_EQ("Could not get device info.", MessageOf([&] { library->CreateDevice("NO-SUCH-CAMERA"); }));
    EXPECT_EQ("No parent object passed", MessageOf([&] { library->OpenDevice("LEFT-0001", nullptr); }));
    auto parent = std::make_shared<System::Object>();
    auto device = library->OpenDevice("LEFT-0001", parent);
    EXPECT_EQ(2, parent.use_count()) << "the device keeps its parent";
    device.reset();
    EXPECT_EQ(1, parent.use_count());
}

TEST_F(LibraryModel, NoCameraMeansNoDeviceList)
{
    system = std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText("[system]\nboard = imx8m\n"));
    Os::Install(system);
    CreateLibrary();
    EXPECT_EQ("Could not get device list.", MessageOf([&] { library->GetDeviceList(0xDEADBEEF); }));
}

TEST_F(LibraryModel, TheMediaLogIsOpenedOnceForTheProcess)
{
    CreateLibrary();
    library->GetDeviceList(1);
    const auto otherPath = logPath.string() + ".other";
    LibCSI::Library::MediaLogOpen(true, otherPath);
    LibCSI::Library::MediaLog("still the first log");
    const std::string log = MediaLogAfterClose();
    EXPECT_FALSE(boost::filesystem::exists(otherPath)) << "a second open changes nothing";
    EXPECT_NE(std::string::npos, log.find("still the first log"));
    EXPECT_NE(std::string::npos, log.find("CSITL::CSILibrary::CSIInfo::Init(): DeviceIndex=1"));
    EXPECT_NE(std::string::npos, log.find("  INFO_SerialNumber=SN-LEFT (Availability=1)"));
    EXPECT_FALSE(LibCSI::Library::IsMediaLogActive()) << "the library took the log with it";
}

TEST_F(LibraryModel, WithoutTheMediaLogNothingIsWritten)
{
    CreateLibrary(false);
    library->GetDeviceList(1);
    MediaLogAfterClose();
    EXPECT_FALSE(boost::filesystem::exists(logPath));
}

}
