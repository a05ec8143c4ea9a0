#include "framework/BaseEvent.h"
#include "framework/EventRecords.h"
#include "libcsi/OsSeam.h"
#include "modules/CSIInterface.h"
#include "modules/CSILibrary.h"
#include "modules/CSISystem.h"
#include "sim/VirtualSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

using namespace QEL;

namespace {

const char* kTwoCameras = R"(
[camera0]
guid = LEFT-1
serial_number = SN-L
model = Left
bus_timing = 0
mode_switch_delay_ms = 2
[camera1]
node = video1
port = 3
bus = 3
guid = RIGHT-2
serial_number = SN-R
model = Right
bus_timing = 0
mode_switch_delay_ms = 2
)";

std::string Text(const Base::InfoPtr& info)
{
    auto s = std::dynamic_pointer_cast<const Base::StringInfo>(info);
    return s ? s->GetValue() : "<not a string>";
}

std::pair<GC_ERROR, std::string> ErrorOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Base::Exception& e) {
        return {e.GetCode(), e.GetText()};
    }
    return {GC_ERR_SUCCESS, ""};
}

class CSIInterface : public ::testing::Test {
protected:
    explicit CSIInterface(const char* description = kTwoCameras)
        : camera(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(description)))
    {
        Os::Install(camera);
        library = std::make_shared<CSI::Library>(std::make_shared<Settings>("/opt/lorun/lorun_csi2.cti"));
        system = std::dynamic_pointer_cast<CSI::System>(library->GetSystem());
        interface = std::dynamic_pointer_cast<CSI::Interface>(system->OpenInterface("LorunCSIInterface_0x0"));
    }
    ~CSIInterface() override
    {
        interface.reset();
        system.reset();
        library.reset();
        Os::Install(nullptr);
    }

    std::uint32_t ReadUInt(std::uint64_t address)
    {
        std::uint32_t value = 0;
        std::size_t size = sizeof value;
        interface->ReadPort(address, &value, &size);
        return value;
    }
    std::string ReadString(std::uint64_t address, std::size_t length)
    {
        std::vector<char> text(length + 1, 0);
        interface->ReadPort(address, text.data(), &length);
        return text.data();
    }
    void WriteUInt(std::uint64_t address, std::uint32_t value)
    {
        std::size_t size = sizeof value;
        interface->WritePort(address, &value, &size);
    }

    std::shared_ptr<Sim::VirtualSystem> camera;
    std::shared_ptr<CSI::Library> library;
    std::shared_ptr<CSI::System> system;
    std::shared_ptr<CSI::Interface> interface;
};

TEST_F(CSIInterface, DeviceInfoComesFromTheCurrentListBeforeAnyUpdate)
{
    ASSERT_TRUE(interface);
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_NOT_AVAILABLE, "Invalid without device list update."}),
              ErrorOf([&] { interface->GetNumDevices(); }));
    EXPECT_EQ("Left", Text(interface->GetDeviceInfo("DEV_LEFT-1", DEVICE_INFO_MODEL)));
    EXPECT_EQ("DEV_RIGHT-2", Text(interface->GetDeviceInfo("SN-R", DEVICE_INFO_ID))) << "found by serial number";
    EXPECT_EQ("Custom", Text(interface->GetDeviceInfo("DEV_RIGHT-2", DEVICE_INFO_TLTYPE)));
    const auto vendor = Text(interface->GetDeviceInfo("DEV_RIGHT-2", DEVICE_INFO_VENDOR));
    EXPECT_EQ(vendor + " Right", Text(interface->GetDeviceInfo("DEV_RIGHT-2", DEVICE_INFO_DISPLAYNAME)));
    auto status = std::dynamic_pointer_cast<const Base::Int32Info>(
        interface->GetDeviceInfo("DEV_LEFT-1", DEVICE_INFO_ACCESS_STATUS));
    ASSERT_TRUE(status);
    EXPECT_EQ(DEVICE_ACCESS_STATUS_READWRITE, status->GetValue());
    EXPECT_EQ("SN-L", Text(interface->GetDeviceInfo("DEV_LEFT-1", static_cast<DEVICE_INFO_CMD>(1000))));
    EXPECT_EQ(GC_ERR_INVALID_ID, ErrorOf([&] { interface->GetDeviceInfo("nobody", DEVICE_INFO_ID); }).first);
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, ErrorOf([&] { interface->GetDeviceInfo("DEV_LEFT-1", 99); }).first);
    EXPECT_EQ("LorunCSIInterface_0x0", Text(interface->GetPortInfo(PORT_INFO_ID)));
    EXPECT_EQ("InterfacePort", Text(interface->GetPortInfo(PORT_INFO_PORTNAME)));
    EXPECT_EQ(system, interface->GetParent());
}

TEST_F(CSIInterface, TheListTheConsumerSeesChangesOnlyAtItsUpdate)
{
    EXPECT_EQ(0u, ReadUInt(0x10C0000));
    EXPECT_TRUE(interface->UpdateDeviceList(0));
    EXPECT_FALSE(interface->UpdateDeviceList(0)) << "no change since";
    ASSERT_EQ(2u, interface->GetNumDevices());
    EXPECT_EQ("DEV_LEFT-1", interface->GetDeviceID(0));
    EXPECT_EQ(GC_ERR_INVALID_INDEX, ErrorOf([&] { interface->GetDeviceID(2); }).first);
    EXPECT_EQ(1u, ReadUInt(0x10C0000));
    EXPECT_EQ(2u, ReadUInt(0x1030000));
    EXPECT_EQ("DEV_LEFT-1", ReadString(0x1060000, 256)) << "the selector starts at 0";
    WriteUInt(0x1050000, 1);
    EXPECT_EQ("DEV_RIGHT-2", ReadString(0x1060000, 256));
    EXPECT_EQ("Right", ReadString(0x1090000, 128));
    EXPECT_EQ(static_cast<std::uint32_t>(DEVICE_ACCESS_STATUS_READWRITE), ReadUInt(0x10B0000));
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_INVALID_VALUE, "Value cannot be written to port."}),
              ErrorOf([&] { WriteUInt(0x1050000, 2); }))
        << "the selector refuses the count itself";
    EXPECT_EQ("DEV_RIGHT-2", ReadString(0x1060000, 256)) << "and keeps its value";
}

TEST_F(CSIInterface, CamerasThatComeAndGoAreEvents)
{
    auto event = interface->RegisterEvent(EVENT_INTERFACE_CHANGE);
    const std::string watched = "/sys/class/video4linux/video1/availability";
    for (int i = 0; i < 500 && !camera->IsWatched(watched); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    camera->SetAvailable(1, false);
    Base::InterfaceChangeEventData<256> record{};
    std::size_t size = sizeof record;
    ASSERT_EQ(GC_ERR_SUCCESS, event->GetData(&record, &size, 5000));
    EXPECT_EQ(264u, size);
    EXPECT_STREQ("DEV_RIGHT-2", record.deviceID);
    EXPECT_EQ(2u, record.changed);
    EXPECT_EQ(1u, record.state);
    EXPECT_EQ("DEV_RIGHT-2", Text(event->GetDataInfo(&record, size, 1001)));
    auto status = std::dynamic_pointer_cast<const Base::Int32Info>(
        interface->GetDeviceInfo("DEV_RIGHT-2", DEVICE_INFO_ACCESS_STATUS));
    ASSERT_TRUE(status);
    EXPECT_EQ(DEVICE_ACCESS_STATUS_NOACCESS, status->GetValue());
    interface->UnregisterEvent(EVENT_INTERFACE_CHANGE);
}

TEST_F(CSIInterface, OpeningNeedsAKnownDevice)
{
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_INVALID_ID, "No device available with the given ID."}),
              ErrorOf([&] { interface->OpenDevice("nobody", DEVICE_ACCESS_CONTROL); }));
    auto device = interface->OpenDevice("SN-L", DEVICE_ACCESS_CONTROL);
    ASSERT_TRUE(device) << "a serial number names the device too";
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_RESOURCE_IN_USE, "The requested device is already open."}),
              ErrorOf([&] { interface->OpenDevice(device->GetInfo(DEVICE_INFO_ID) ? "SN-L" : "", DEVICE_ACCESS_READONLY); }));
}

TEST_F(CSIInterface, OneOpenInterfaceAtATime)
{
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_RESOURCE_IN_USE, "Interface already open."}),
              ErrorOf([&] { system->OpenInterface("LorunCSIInterface_0x0"); }));
    EXPECT_EQ(GC_ERR_INVALID_ID, ErrorOf([&] { system->OpenInterface("other"); }).first);
    interface->Close();
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_INVALID_HANDLE, "Interface not open."}),
              ErrorOf([&] { interface->UpdateDeviceList(0); }));
    auto again = system->OpenInterface("LorunCSIInterface_0x0");
    EXPECT_NE(interface, again);
    system->Close();
    EXPECT_FALSE(again->IsOpen()) << "the System closes its interface";
}

class EmptyInterface : public CSIInterface {
protected:
    EmptyInterface() : CSIInterface("[system]\nboard = imx8m\n") {}
};

TEST_F(EmptyInterface, NoCameraMeansNoSelection)
{
    EXPECT_FALSE(interface->UpdateDeviceList(0));
    EXPECT_EQ(0u, interface->GetNumDevices());
    EXPECT_EQ(0u, ReadUInt(0x1030000));
    EXPECT_NE(GC_ERR_SUCCESS, ErrorOf([&] { WriteUInt(0x1050000, 0); }).first);
    EXPECT_NE(GC_ERR_SUCCESS, ErrorOf([&] { ReadString(0x1060000, 256); }).first);
}

}
