#include "modules/CSILibrary.h"
#include "modules/CSISystem.h"
#include "libcsi/OsSeam.h"
#include "sim/VirtualSystem.h"
#include "transport/DriverHandler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

using namespace QEL;

namespace {

const char* kOneCamera = "[camera0]\nguid = CAM-1\nbus_timing = 0\nmode_switch_delay_ms = 2\n";

std::string Text(const Base::InfoPtr& info)
{
    auto s = std::dynamic_pointer_cast<const Base::StringInfo>(info);
    return s ? s->GetValue() : "<not a string>";
}

// The error of `action` as (code, text); code 0 when it did not throw.
std::pair<GC_ERROR, std::string> ErrorOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Base::Exception& e) {
        return {e.GetCode(), e.GetText()};
    }
    return {GC_ERR_SUCCESS, ""};
}

class CSISystem : public ::testing::Test {
protected:
    CSISystem() : camera(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(kOneCamera)))
    {
        Os::Install(camera);
    }
    ~CSISystem() override
    {
        library.reset();
        Os::Install(nullptr);
    }

    std::uint32_t ReadUInt(std::uint64_t address)
    {
        std::uint32_t value = 0;
        std::size_t size = sizeof value;
        system->ReadPort(address, &value, &size);
        return value;
    }
    std::string ReadString(std::uint64_t address, std::size_t length)
    {
        std::vector<char> text(length + 1, 0);
        system->ReadPort(address, text.data(), &length);
        return text.data();
    }
    void WriteUInt(std::uint64_t address, std::uint32_t value)
    {
        std::size_t size = sizeof value;
        system->WritePort(address, &value, &size);
    }

    void Open()
    {
        library = std::make_shared<CSI::Library>(std::make_shared<Settings>("/opt/lorun/lorun_csi2.cti"));
        system = std::dynamic_pointer_cast<CSI::System>(library->GetSystem());
        ASSERT_TRUE(system);
    }

    std::shared_ptr<Sim::VirtualSystem> camera;
    std::shared_ptr<CSI::Library> library;
    std::shared_ptr<CSI::System> system;
};

TEST_F(CSISystem, OpenSystemFindsTheCamerasAndAnswersItsInfo)
{
    Open();
    EXPECT_TRUE(system->IsOpen());
    auto list = system->GetDriverHandler()->GetDeviceList(nullptr);
    ASSERT_EQ(1u, list->GetCount()) << "the first enumeration is done when TLOpen returns";
    EXPECT_EQ("DEV_CAM-1", list->GetId(0));
    EXPECT_EQ("Lorun CSI-2 GenTL", Text(system->GetInfo(TL_INFO_MODEL)));
    EXPECT_EQ("TLSystem", Text(system->GetPortInfo(PORT_INFO_MODULE)));
    EXPECT_EQ("TLPort", Text(system->GetPortInfo(PORT_INFO_PORTNAME)));
    EXPECT_EQ(Text(system->GetInfo(TL_INFO_ID)), Text(system->GetPortInfo(PORT_INFO_ID)));
    EXPECT_EQ("Tesmar Lumetric Industries", ReadString(0x1000000, 128));
    EXPECT_EQ("/opt/lorun/lorun_csi2.cti", ReadString(0x1050000, 1024));
    EXPECT_EQ(1u, ReadUInt(0x1070000));
    EXPECT_EQ(5u, ReadUInt(0x1080000));
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_RESOURCE_IN_USE, "System already open."}),
              ErrorOf([&] { library->GetSystem(); }));
}

TEST_F(CSISystem, TheInterfaceListNeedsAnUpdateOnce)
{
    Open();
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_NOT_AVAILABLE, "Invalid without interface list update."}),
              ErrorOf([&] { system->GetNumInterfaces(); }));
    EXPECT_EQ(0u, ReadUInt(0x10E0000));
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_INVALID_PARAMETER, "Register not accessible."}),
              ErrorOf([&] { ReadUInt(0x1090000); }))
        << "the count is hidden before the update";
    EXPECT_EQ("LorunCSIInterface_0x0", Text(system->GetInterfaceInfo("LorunCSIInterface_0x0", INTERFACE_INFO_ID)))
        << "the info needs no update";
    EXPECT_TRUE(system->UpdateInterfaceList(0));
    EXPECT_FALSE(system->UpdateInterfaceList(0)) << "the list never changes after that";
    EXPECT_EQ(1u, system->GetNumInterfaces());
    EXPECT_EQ("LorunCSIInterface_0x0", Text(system->GetInterfaceID(0)));
    EXPECT_EQ(GC_ERR_INVALID_INDEX, ErrorOf([&] { system->GetInterfaceID(1); }).first);
    EXPECT_EQ(GC_ERR_INVALID_ID, ErrorOf([&] { system->GetInterfaceInfo("other", INTERFACE_INFO_ID); }).first);
    INFO_DATATYPE type = 0;
    EXPECT_EQ(std::strlen("Lorun CSI-2 Interface") + 1,
              system->GetInterfaceInfoSize("LorunCSIInterface_0x0", INTERFACE_INFO_DISPLAYNAME, &type));
    EXPECT_EQ(INFO_DATATYPE_STRING, type);

    EXPECT_EQ(1u, ReadUInt(0x10E0000));
    EXPECT_EQ(1u, ReadUInt(0x1090000));
    EXPECT_EQ(1u, ReadUInt(0x10A0000)) << "the selector reads the count";
    EXPECT_EQ("LorunCSIInterface_0x0", ReadString(0x10C0000, 256));
    EXPECT_EQ("Lorun CSI-2 Interface", ReadString(0x10D0000, 256));
    EXPECT_NO_THROW(WriteUInt(0x10A0000, 0));
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_INVALID_INDEX, "Invalid interface selected."}),
              ErrorOf([&] { WriteUInt(0x10A0000, 1); }));
}

TEST_F(CSISystem, WritingTheUpdateRegisterUpdatesTheList)
{
    Open();
    EXPECT_EQ(0u, ReadUInt(0x10B0000));
    WriteUInt(0x10B0000, 0);
    EXPECT_EQ(0u, ReadUInt(0x10E0000)) << "writing 0 does nothing";
    WriteUInt(0x10B0000, 1);
    EXPECT_EQ(1u, ReadUInt(0x10E0000));
    EXPECT_EQ(1u, system->GetNumInterfaces());
}

TEST_F(CSISystem, AClosedSystemRefusesAndANewOneTakesItsPlace)
{
    Open();
    system->Close();
    EXPECT_FALSE(system->IsOpen());
    EXPECT_EQ((std::pair<GC_ERROR, std::string>{GC_ERR_INVALID_HANDLE, "System not open."}),
              ErrorOf([&] { system->GetNumInterfaces(); }));
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, ErrorOf([&] { system->Close(); }).first);
    auto again = std::dynamic_pointer_cast<CSI::System>(library->GetSystem());
    ASSERT_TRUE(again);
    EXPECT_NE(system, again);
    EXPECT_EQ(1u, again->GetDriverHandler()->GetDeviceList(nullptr)->GetCount()) << "with a fresh enumeration";
    library->Close();
    EXPECT_FALSE(again->IsOpen()) << "the library closes its System";
}

}
