// The element's tests: GStreamer once per process, lorunsrc and its device
// provider registered from the code under test, and any GLib warning or critical fails the run.
// Each test needs a process of its own, as ctest runs them: the producer, and
// with it the virtual cameras a test describes, is loaded once per process.
#include "gst/LorunDeviceProvider.h"
#include "gst/LorunSrc.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    gst_init(&argc, &argv);
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    if (!gst_element_register(nullptr, "lorunsrc", GST_RANK_NONE, LORUN_TYPE_SRC) ||
        !gst_device_provider_register(nullptr, "lorundeviceprovider", GST_RANK_SECONDARY, LORUN_TYPE_DEVICE_PROVIDER))
        return 1;
    return RUN_ALL_TESTS();
}
