// The System module's document, evaluated by Aravis over a device whose
// memory is the System's port.
#include "libcsi/OsSeam.h"
#include "modules/CSILibrary.h"
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

    // Through the port as GCReadPort and GCWritePort go; a failure is a failed access.
    auto through = [&](auto access) {
        return [&system, access](std::uint64_t address, std::uint32_t size, void* buffer) {
            try {
                std::size_t done = size;
                access(*system, address, buffer, &done);
                return done == size;
            } catch (...) {
                return false;
            }
        };
    };
    ArvDevice* device = AravisTest::NewDevice(
        {through([](Base::Port& port, std::uint64_t a, void* b, std::size_t* s) { port.ReadPort(a, b, s); }),
         through([](Base::Port& port, std::uint64_t a, void* b, std::size_t* s) { port.WritePort(a, b, s); })});
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

}
