// No exception leaves libcsi: each exported function, made to throw inside
// its boundary (as an allocation failure anywhere in its body would), returns
// LIBCSI_ERROR instead of ending the process, and the library goes on.
#include "libcsi/Boundary.h"
#include "libcsi/OsSeam.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "sim/VirtualSystem.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace QEL;

namespace {

class Boundary : public ::testing::Test {
protected:
    void SetUp() override
    {
        system = std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(
            "[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\nmode_switch_delay_ms = 2\n"));
        Os::Install(system);
        ASSERT_EQ(LIBCSI_OK, libcsi_init());
        ASSERT_EQ(LIBCSI_OK, libcsi_update_device_list());
        ASSERT_EQ(LIBCSI_OK, libcsi_open_device(0, &device));
    }
    void TearDown() override
    {
        LibCSIImpl::ThrowInExport(nullptr);
        EXPECT_EQ(LIBCSI_OK, libcsi_close_device(device));
        EXPECT_EQ(LIBCSI_OK, libcsi_deinit());
        Os::Install(nullptr);
    }

    std::shared_ptr<Sim::VirtualSystem> system;
    device_handle_t* device = nullptr;
};

TEST_F(Boundary, EveryExportCatchesWhatItsBodyThrows)
{
    std::uint32_t words[4] = {};
    std::uint32_t count = 0;
    std::int32_t type = 0;
    std::uint64_t size = 0, wide = 0;
    std::uint8_t lanes = 0;
    libcsi_ipu_restrictions_t restrictions{};
    libcsi_stream_statistics_t statistics{};
    lib_frame_transfer transfer{};
    frame_handle_t* frame = nullptr;
    device_handle_t* opened = nullptr;
    char data[64] = {};
    auto discovery = [](void*, const char*, bool) {};
    auto report = [](void*, const char*) {};
    auto callback = [](void*, frame_handle_t*, lib_frame_transfer*, std::uint64_t, std::uint32_t) {};
    const std::vector<std::pair<const char*, std::function<std::int32_t()>>> exports = {
        {"libcsi_get_version", [&] { return libcsi_get_version(words); }},
        {"libcsi_init", [&] { return libcsi_init(); }},
        {"libcsi_deinit", [&] { return libcsi_deinit(); }},
        {"libcsi_register_discovery_callback", [&] { return libcsi_register_discovery_callback(discovery, nullptr); }},
        {"libcsi_deregister_discovery_callback", [&] { return libcsi_deregister_discovery_callback(); }},
        {"libcsi_register_report_callback", [&] { return libcsi_register_report_callback(report, nullptr); }},
        {"libcsi_deregister_report_callback", [&] { return libcsi_deregister_report_callback(); }},
        {"libcsi_update_device_list", [&] { return libcsi_update_device_list(); }},
        {"libcsi_get_device_count", [&] { return libcsi_get_device_count(&count); }},
        {"libcsi_get_info", [&] { return libcsi_get_info(0, INFO_ModelName, &type, nullptr, &size); }},
        {"libcsi_get_ext_info", [&] { return libcsi_get_ext_info(device, 0, &type, nullptr, &size); }},
        {"libcsi_open_device", [&] { return libcsi_open_device(0, &opened); }},
        {"libcsi_close_device", [&] { return libcsi_close_device(device); }},
        {"libcsi_reset_device", [&] { return libcsi_reset_device(device); }},
        {"libcsi_get_ipu_restrictions", [&] { return libcsi_get_ipu_restrictions(device, &restrictions); }},
        {"libcsi_get_gencp_buffer_sizes", [&] { return libcsi_get_gencp_buffer_sizes(device, &count, &count); }},
        {"libcsi_get_min_announced_frames", [&] { return libcsi_get_min_announced_frames(device, &count); }},
        {"libcsi_get_statistics_capability", [&] { return libcsi_get_statistics_capability(device, &wide); }},
        {"libcsi_get_supported_lane_counts", [&] { return libcsi_get_supported_lane_counts(device, &lanes); }},
        {"libcsi_get_supported_csi_data_identifiers",
         [&] { return libcsi_get_supported_csi_data_identifiers(device, &wide); }},
        {"libcsi_get_supported_csi_host_clock_range",
         [&] { return libcsi_get_supported_csi_host_clock_range(device, 2, &count, &count); }},
        {"libcsi_get_cci_link_speed", [&] { return libcsi_get_cci_link_speed(device, &count); }},
        {"libcsi_get_csi_config", [&] { return libcsi_get_csi_config(device, &lanes, &count); }},
        {"libcsi_set_csi_config", [&] { return libcsi_set_csi_config(device, &lanes, &count); }},
        {"libcsi_announce_frame", [&] { return libcsi_announce_frame(device, 256, 32, &transfer, &frame); }},
        {"libcsi_alloc_and_announce_frame",
         [&] { return libcsi_alloc_and_announce_frame(device, 256, 32, &transfer, &frame); }},
        {"libcsi_queue_frame", [&] { return libcsi_queue_frame(device, frame, callback, nullptr); }},
        {"libcsi_flush_frames", [&] { return libcsi_flush_frames(device); }},
        {"libcsi_revoke_frame", [&] { return libcsi_revoke_frame(device, frame); }},
        {"libcsi_start_stream", [&] { return libcsi_start_stream(device, 42); }},
        {"libcsi_stop_stream", [&] { return libcsi_stop_stream(device, 100); }},
        {"libcsi_get_stream_statistics", [&] { return libcsi_get_stream_statistics(device, &statistics); }},
        {"libcsi_reset_stream_statistics", [&] { return libcsi_reset_stream_statistics(device); }},
        {"libcsi_write_gencp", [&] { return libcsi_write_gencp(device, data, sizeof data, 100); }},
        {"libcsi_read_gencp",
         [&] {
             size = sizeof data;
             return libcsi_read_gencp(device, data, &size, 100);
         }},
    };
    // Every function the public header declares is in the table.
    std::ifstream header(LORUN_SOURCE_DIR "/libcsi/include/libcsi/libcsi.h");
    std::stringstream text;
    text << header.rdbuf();
    const std::string declarations = text.str();
    std::set<std::string> declared, tested;
    const std::string marker = "LIBCSI_API int32_t ";
    for (auto at = declarations.find(marker); at != std::string::npos; at = declarations.find(marker, at + 1)) {
        const auto name = at + marker.size();
        declared.insert(declarations.substr(name, declarations.find('(', name) - name));
    }
    for (const auto& entry : exports)
        tested.insert(entry.first);
    EXPECT_EQ(declared, tested);
    for (const auto& [name, call] : exports) {
        SCOPED_TRACE(name);
        LibCSIImpl::ThrowInExport(name);
        EXPECT_EQ(LIBCSI_ERROR, call());
        EXPECT_FALSE(LibCSIImpl::TakeThrowFor(name)) << "the throw came inside the export's boundary";
    }
    LibCSIImpl::ThrowInExport(nullptr);
    // Nothing of a body ran: the library and the device are as they were.
    ASSERT_EQ(LIBCSI_OK, libcsi_get_device_count(&count));
    EXPECT_EQ(1u, count);
    EXPECT_EQ(LIBCSI_OK, libcsi_get_ipu_restrictions(device, &restrictions));
}

} // namespace
