// The System module's document, evaluated by Aravis over a device whose
// memory is the System's port.
#include "libcsi/OsSeam.h"
#include "modules/CSILibrary.h"
#include "sim/VirtualSystem.h"

#include <arv.h>
#include <gtest/gtest.h>

namespace {

QEL::Base::Port* systemPort = nullptr;

}

extern "C" {

struct PortDevice {
    ArvDevice parent;
};

struct PortDeviceClass {
    ArvDeviceClass parent_class;
};

G_DEFINE_TYPE(PortDevice, port_device, ARV_TYPE_DEVICE)

static gboolean port_device_read_memory(ArvDevice*, guint64 address, guint32 size, void* buffer, GError**)
{
    try {
        std::size_t done = size;
        systemPort->ReadPort(address, buffer, &done);
        return done == size;
    } catch (...) {
        return FALSE;
    }
}

static gboolean port_device_write_memory(ArvDevice*, guint64 address, guint32 size, void* buffer, GError**)
{
    try {
        std::size_t done = size;
        systemPort->WritePort(address, buffer, &done);
        return done == size;
    } catch (...) {
        return FALSE;
    }
}

static void port_device_init(PortDevice*) {}

static void port_device_class_init(PortDeviceClass* klass)
{
    ArvDeviceClass* device = ARV_DEVICE_CLASS(klass);
    device->read_memory = port_device_read_memory;
    device->write_memory = port_device_write_memory;
}

}

namespace {

using namespace QEL;

TEST(SystemDocument, FeaturesReadThroughTheSystemPort)
{
    Os::Install(std::make_shared<Sim::VirtualSystem>(
        Sim::SystemDescription::FromText("[camera0]\nbus_timing = 0\nmode_switch_delay_ms = 2\n")));
    auto settings = std::make_shared<Settings>("/opt/lorun/lorun_csi2.cti");
    auto library = std::make_shared<CSI::Library>(settings);
    auto system = library->GetSystem();
    systemPort = system.get();
    const auto& xml = *settings->GetSystemXML()->GetData();

    ArvDevice* device = static_cast<ArvDevice*>(g_object_new(port_device_get_type(), nullptr));
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
    systemPort = nullptr;
    library->Close();
    Os::Install(nullptr);
}

}
