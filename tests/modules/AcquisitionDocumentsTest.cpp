// The documents a consumer sees of an opened camera - the Device and
// DataStream modules' own and the camera's - evaluated by Aravis over the
// ports, every feature reachable from Root read as a browsing consumer would.
#include "libcsi/OsSeam.h"
#include "modules/CSIDevice.h"
#include "modules/CSILibrary.h"
#include "modules/CSISystem.h"
#include "sim/VirtualSystem.h"
#include "tests/AravisDevice.h"

#include <arv.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace QEL;

// The document a port's first URL points to, read through the port.
std::string DocumentOf(Base::Port& port)
{
    const std::string url = port.GetPortURLs().at(0);
    std::smatch match;
    EXPECT_TRUE(std::regex_search(url, match, std::regex("^local:(///)?[^;]+;([0-9A-Fa-f]+);([0-9A-Fa-f]+)"))) << url;
    std::string document(std::stoull(match[3], nullptr, 16), '\0');
    std::size_t size = document.size();
    port.ReadPort(std::stoull(match[2], nullptr, 16), document.data(), &size);
    return document;
}

// Reads every implemented, available, readable feature below Root; returns
// the names read, and fails the test on any error.
std::set<std::string> ReadAll(ArvGc* genicam)
{
    std::set<std::string> read;
    std::vector<std::string> pending{"Root"};
    std::set<std::string> visited;
    while (!pending.empty()) {
        const std::string name = pending.back();
        pending.pop_back();
        if (!visited.insert(name).second)
            continue;
        ArvGcNode* node = arv_gc_get_node(genicam, name.c_str());
        EXPECT_NE(nullptr, node) << name;
        if (!node)
            continue;
        GError* error = nullptr;
        if (ARV_IS_GC_CATEGORY(node)) {
            for (const GSList* item = arv_gc_category_get_features(ARV_GC_CATEGORY(node)); item; item = item->next)
                pending.push_back(static_cast<const char*>(item->data));
            continue;
        }
        if (ARV_IS_GC_COMMAND(node) || !ARV_IS_GC_FEATURE_NODE(node))
            continue;
        auto* feature = ARV_GC_FEATURE_NODE(node);
        const bool implemented = arv_gc_feature_node_is_implemented(feature, &error);
        EXPECT_EQ(nullptr, error) << name << ": " << (error ? error->message : "");
        g_clear_error(&error);
        if (!implemented)
            continue;
        const bool available = arv_gc_feature_node_is_available(feature, &error);
        g_clear_error(&error);
        if (!available)
            continue;
        const char* value = arv_gc_feature_node_get_value_as_string(feature, &error);
        EXPECT_EQ(nullptr, error) << name << ": " << (error ? error->message : "");
        if (!error && value)
            read.insert(name);
        g_clear_error(&error);
    }
    return read;
}

class OpenedCamera : public ::testing::Test {
protected:
    OpenedCamera()
    {
        Os::Install(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(
            "[camera0]\nguid = CAM-A\nbus_timing = 0\nmode_switch_delay_ms = 2\nwidth = 64\nheight = 16\n")));
        settings = std::make_shared<Settings>("/opt/lorun/lorun_csi2.cti");
        library = std::make_shared<CSI::Library>(settings);
        auto interface = library->GetSystem()->OpenInterface("LorunCSIInterface_0x0");
        interface->UpdateDeviceList(0);
        device = std::dynamic_pointer_cast<CSI::Device>(interface->OpenDevice("DEV_CAM-A", DEVICE_ACCESS_CONTROL));
    }
    ~OpenedCamera() override
    {
        library->Close();
        Os::Install(nullptr);
    }

    std::set<std::string> Evaluate(Base::Port& port, const std::string& document)
    {
        ArvDevice* aravis = AravisTest::DeviceOverPort(port);
        ArvGc* genicam = arv_gc_new(aravis, document.data(), document.size());
        EXPECT_NE(nullptr, genicam);
        std::set<std::string> read;
        if (genicam) {
            read = ReadAll(genicam);
            g_object_unref(genicam);
        }
        g_object_unref(aravis);
        return read;
    }

    std::shared_ptr<Settings> settings;
    std::shared_ptr<CSI::Library> library;
    std::shared_ptr<CSI::Device> device;
};

TEST_F(OpenedCamera, TheDeviceDocumentReadsWhole)
{
    ASSERT_TRUE(device);
    const auto& xml = *settings->GetDeviceXML()->GetData();
    const auto read = Evaluate(*device, std::string(xml.begin(), xml.end()));
    for (const char* name : {"DeviceID", "DeviceVendorName", "DeviceModelName", "DeviceType", "StreamCount",
                             "StreamSelector", "StreamID", "DriverPath", "DeviceLocation", "CSI2DriverVersion",
                             "LibcsiVersion", "CSI2LaneCount", "CSI2ClockFrequency", "PacketSize", "PacketCount"})
        EXPECT_TRUE(read.count(name)) << name;
}

// Every feature reads without an error in each payload size mode: an
// evaluator that does not carry a register's availability up to its feature
// (Aravis) finds the manual size unavailable on the feature itself.
TEST_F(OpenedCamera, TheDataStreamDocumentReadsWholeInEveryPayloadSizeMode)
{
    auto stream = device->OpenDataStream(device->GetDataStreamID(0));
    const auto& xml = *settings->GetDataStreamXML()->GetData();
    const std::string document(xml.begin(), xml.end());
    for (std::uint32_t mode : {0u, 1u, 2u}) {
        std::size_t size = sizeof mode;
        stream->WritePort(0x1090000, &mode, &size);
        const auto read = Evaluate(*stream, document);
        for (const char* name : {"StreamID", "StreamType", "StreamIsGrabbing", "StatFrameDelivered", "StatFrameRate",
                                 "StreamAnnouncedBufferCount", "StreamBufferHandlingMode",
                                 "StreamAnnounceBufferMinimum", "MaxDriverBuffersCount", "StreamPayloadSizeMode",
                                 "StreamPayloadSizeAlignment", "StreamStopTimeout"})
            EXPECT_TRUE(read.count(name)) << name << " in mode " << mode;
        EXPECT_EQ(mode == 2, read.count("ManualStreamPayloadSize") == 1) << "mode " << mode;
    }
    // In the Manual mode the manual size is at least the aligned payload size.
    std::uint64_t manual = 0, payload = 0;
    std::size_t size = sizeof manual;
    stream->ReadPort(0x10B0000, &manual, &size);
    stream->ReadPort(0x1050000, &payload, &size);
    EXPECT_GE(manual, payload);
}

TEST_F(OpenedCamera, TheCamerasDocumentReadsWholeThroughTheRemotePort)
{
    auto remote = device->GetPort();
    const auto read = Evaluate(*remote, DocumentOf(*remote));
    for (const char* name : {"DeviceVendorName", "DeviceModelName", "Width", "Height", "PixelFormat", "PayloadSize",
                             "AcquisitionFrameRate"})
        EXPECT_TRUE(read.count(name)) << name;
}

}
