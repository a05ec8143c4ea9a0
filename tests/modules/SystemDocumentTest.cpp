// The documents of the System and Interface modules, evaluated by Aravis
// over a device whose memory is the module's port.
#include "libcsi/OsSeam.h"
#include "modules/CSILibrary.h"
#include "modules/CSISystem.h"
#include "sim/VirtualSystem.h"
#include "tests/AravisDevice.h"

#include <arv.h>
#include <gtest/gtest.h>

namespace {

using namespace QEL;

TEST(SystemDocument, FeaturesReadThroughTheSystemPort)
{
    Os::Install(std::make_shared<Sim::VirtualSystem>(
        Sim::SystemDescription::FromText("[camera0]\nbus_timing = 0\nmode_switch_delay_ms = 2\n")));
    auto settings = std::make_shared<Settings>("/opt/lorun/lorun_csi2.cti");
    auto library = std::make_shared<CSI::Library>(settings);
    auto system = library->GetSystem();
    const auto& xml = *settings->GetSystemXML()->GetData();

    ArvDevice* device = AravisTest::DeviceOverPort(*system);
    ArvGc* genicam = arv_gc_new(device, xml.data(), xml.size());
    ASSERT_NE(nullptr, genicam);
    GError* error = nullptr;
    auto node = [&](const char* name) {
        ArvGcNode* found = arv_gc_get_node(genicam, name);
        EXPECT_NE(nullptr, found) << name;
        return found;
    };
    EXPECT_STREQ("Tesmar Lumetric Industries",
                 arv_gc_string_get_value(ARV_GC_STRING(node("TLVendorName")), &error));
    ASSERT_EQ(nullptr, error);
    EXPECT_STREQ("/opt/lorun/lorun_csi2.cti", arv_gc_string_get_value(ARV_GC_STRING(node("TLPath")), &error));
    EXPECT_EQ(5, arv_gc_integer_get_value(ARV_GC_INTEGER(node("GenTLVersionMinor")), &error));
    EXPECT_EQ(8, arv_gc_enumeration_get_int_value(ARV_GC_ENUMERATION(node("TLType")), &error));
    EXPECT_EQ(0, arv_gc_integer_get_value(ARV_GC_INTEGER(node("InterfaceListUpdatedReg")), &error));
    ASSERT_EQ(nullptr, error);

    arv_gc_command_execute(ARV_GC_COMMAND(node("InterfaceUpdateList")), &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_EQ(1, arv_gc_integer_get_value(ARV_GC_INTEGER(node("InterfaceListUpdatedReg")), &error));
    EXPECT_EQ(1, arv_gc_integer_get_value(ARV_GC_INTEGER(node("InterfaceCount")), &error));
    EXPECT_EQ(0, arv_gc_integer_get_value(ARV_GC_INTEGER(node("MaxInterfaceIndex")), &error));
    arv_gc_integer_set_value(ARV_GC_INTEGER(node("InterfaceSelector")), 0, &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_STREQ("LorunCSIInterface_0x0", arv_gc_string_get_value(ARV_GC_STRING(node("InterfaceID")), &error));
    EXPECT_STREQ("Lorun CSI-2 Interface",
                 arv_gc_string_get_value(ARV_GC_STRING(node("InterfaceDisplayName")), &error));
    ASSERT_EQ(nullptr, error);

    g_object_unref(genicam);
    g_object_unref(device);
    library->Close();
    Os::Install(nullptr);
}

TEST(InterfaceDocument, TheDeviceListThroughTheInterfacePort)
{
    Os::Install(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(
        "[camera0]\nguid = CAM-A\nmodel = Alpha\nbus_timing = 0\n"
        "[camera1]\nnode = video1\nport = 3\nbus = 3\nguid = CAM-B\nmodel = Beta\nbus_timing = 0\n")));
    auto settings = std::make_shared<Settings>("/opt/lorun/lorun_csi2.cti");
    auto library = std::make_shared<CSI::Library>(settings);
    auto system = library->GetSystem();
    auto interface = system->OpenInterface("LorunCSIInterface_0x0");
    const auto& xml = *settings->GetInterfaceXML()->GetData();
    ArvDevice* device = AravisTest::DeviceOverPort(*interface);
    ArvGc* genicam = arv_gc_new(device, xml.data(), xml.size());
    ASSERT_NE(nullptr, genicam);
    GError* error = nullptr;
    auto node = [&](const char* name) {
        ArvGcNode* found = arv_gc_get_node(genicam, name);
        EXPECT_NE(nullptr, found) << name;
        return found;
    };
    EXPECT_STREQ("LorunCSIInterface_0x0", arv_gc_string_get_value(ARV_GC_STRING(node("InterfaceID")), &error));
    EXPECT_EQ(8, arv_gc_enumeration_get_int_value(ARV_GC_ENUMERATION(node("InterfaceType")), &error));
    EXPECT_EQ(0, arv_gc_integer_get_value(ARV_GC_INTEGER(node("DeviceListUpdatedReg")), &error));
    ASSERT_EQ(nullptr, error);
    arv_gc_command_execute(ARV_GC_COMMAND(node("DeviceUpdateList")), &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_EQ(2, arv_gc_integer_get_value(ARV_GC_INTEGER(node("DeviceCount")), &error));
    EXPECT_EQ(1, arv_gc_integer_get_value(ARV_GC_INTEGER(node("MaxDeviceIndex")), &error));
    arv_gc_integer_set_value(ARV_GC_INTEGER(node("DeviceSelector")), 1, &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_STREQ("DEV_CAM-B", arv_gc_string_get_value(ARV_GC_STRING(node("DeviceID")), &error));
    EXPECT_STREQ("Beta", arv_gc_string_get_value(ARV_GC_STRING(node("DeviceModelName")), &error));
    EXPECT_STREQ("ReadWrite", arv_gc_enumeration_get_string_value(ARV_GC_ENUMERATION(node("DeviceAccessStatus")), &error));
    ASSERT_EQ(nullptr, error);
    g_object_unref(genicam);
    g_object_unref(device);
    library->Close();
    Os::Install(nullptr);
}

}
