// The GStreamer plugin "lorun": the element lorunsrc and the device provider
// that lists the cameras for it.
#include "gst/LorunDeviceProvider.h"
#include "gst/LorunSrc.h"

#include <gst/gst.h>

static gboolean plugin_init(GstPlugin* plugin)
{
    return gst_element_register(plugin, "lorunsrc", GST_RANK_NONE, LORUN_TYPE_SRC) &&
           gst_device_provider_register(plugin, "lorundeviceprovider", GST_RANK_SECONDARY,
                                        LORUN_TYPE_DEVICE_PROVIDER);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, lorun, "GenTL cameras as a live video source", plugin_init,
                  LORUN_VERSION, "Proprietary", "lorun-csi2", "https://example.invalid/lorun")
