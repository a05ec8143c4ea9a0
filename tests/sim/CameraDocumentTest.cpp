// The virtual camera's GenApi document, evaluated by Aravis over a device
// whose memory reads and writes go through GenCP to the virtual camera.
#include "SimHarness.h"
#include "tests/AravisDevice.h"

#include <arv.h>

namespace {

SimTest::Harness* harness = nullptr;
int node = -1;

bool ReadThroughGenCP(std::uint64_t address, std::uint32_t size, void* buffer)
{
    auto* out = static_cast<std::uint8_t*>(buffer);
    for (std::uint32_t done = 0; done < size;) {
        const auto block = static_cast<std::uint16_t>(std::min<std::uint32_t>(1000, size - done));
        std::uint16_t status = 0xFFFF;
        auto data = harness->ReadMemory(node, address + done, block, &status);
        if (status != 0 || data.size() != block)
            return false;
        std::memcpy(out + done, data.data(), block);
        done += block;
    }
    return true;
}

bool WriteThroughGenCP(std::uint64_t address, std::uint32_t size, void* buffer)
{
    return harness->WriteMemory(node, address, buffer, size) == 0;
}

}

namespace {

using namespace QEL::Sim::CameraMap;

class CameraDocument : public ::testing::Test {
protected:
    void SetUp() override
    {
        harness = &h;
        node = h.OpenNode();
        h.EnterGenCPMode(node);
        device = AravisTest::NewDevice({ReadThroughGenCP, WriteThroughGenCP});
        const std::string& xml = h.system->GetFirmware(0).GetXML();
        genicam = arv_gc_new(device, xml.data(), xml.size());
        ASSERT_NE(nullptr, genicam);
    }
    void TearDown() override
    {
        if (genicam)
            g_object_unref(genicam);
        g_object_unref(device);
        harness = nullptr;
    }
    ArvGcNode* Node(const char* name)
    {
        ArvGcNode* found = arv_gc_get_node(genicam, name);
        EXPECT_NE(nullptr, found) << name;
        return found;
    }

    SimTest::Harness h;
    ArvDevice* device = nullptr;
    ArvGc* genicam = nullptr;
    GError* error = nullptr;
};

TEST_F(CameraDocument, StandardFeaturesReadAndWriteThroughGenCP)
{
    for (const char* name : {"Root", "DeviceVendorName", "DeviceModelName", "DeviceSerialNumber", "Width", "Height",
                             "OffsetX", "OffsetY", "PixelFormat", "ExposureTime", "Gain", "AcquisitionMode",
                             "AcquisitionStart", "AcquisitionStop", "AcquisitionFrameRate", "PayloadSize",
                             "TestPattern"})
        Node(name);

    EXPECT_STREQ("Left Camera", arv_gc_string_get_value(ARV_GC_STRING(Node("DeviceModelName")), &error));
    EXPECT_EQ(64, arv_gc_integer_get_value(ARV_GC_INTEGER(Node("Width")), &error));
    EXPECT_EQ(2592, arv_gc_integer_get_max(ARV_GC_INTEGER(Node("Width")), &error));
    arv_gc_integer_set_value(ARV_GC_INTEGER(Node("Width")), 128, &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_EQ(128u, h.system->GetFirmware(0).ReadValue(Width));

    arv_gc_enumeration_set_string_value(ARV_GC_ENUMERATION(Node("PixelFormat")), "Mono12", &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_STREQ("Mono12", arv_gc_enumeration_get_string_value(ARV_GC_ENUMERATION(Node("PixelFormat")), &error));
    guint count = 0;
    const char** formats =
        arv_gc_enumeration_dup_available_string_values(ARV_GC_ENUMERATION(Node("PixelFormat")), &count, &error);
    std::vector<std::string> names(formats, formats + count);
    g_free(formats);
    for (const char* wanted : {"Mono8", "Mono10p", "Mono12", "RGB8", "BayerRG8"})
        EXPECT_NE(names.end(), std::find(names.begin(), names.end(), wanted)) << wanted;

    const auto payload = arv_gc_integer_get_value(ARV_GC_INTEGER(Node("PayloadSize")), &error);
    EXPECT_EQ(static_cast<gint64>(h.system->GetFirmware(0).Geometry().payloadSize), payload);
    EXPECT_GE(payload, 128 * 16 * 2) << "the payload follows the new geometry";

    arv_gc_float_set_value(ARV_GC_FLOAT(Node("ExposureTime")), 2500.0, &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_DOUBLE_EQ(2500.0, arv_gc_float_get_value(ARV_GC_FLOAT(Node("ExposureTime")), &error));

    EXPECT_FALSE(h.system->GetFirmware(0).IsAcquiring());
    arv_gc_command_execute(ARV_GC_COMMAND(Node("AcquisitionStart")), &error);
    ASSERT_EQ(nullptr, error);
    EXPECT_TRUE(h.system->GetFirmware(0).IsAcquiring());
    arv_gc_command_execute(ARV_GC_COMMAND(Node("AcquisitionStop")), &error);
    EXPECT_FALSE(h.system->GetFirmware(0).IsAcquiring());
}

}
