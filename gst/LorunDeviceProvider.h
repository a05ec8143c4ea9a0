#pragma once

// The cameras of the default GenTL producer as GStreamer devices
// ("Video/Source"), for gst-device-monitor-1.0 and applications that list
// cameras: probed on request, and while monitoring, added and removed as the
// producer's interfaces report changes of their device lists (event 1001).
// Each device makes a lorunsrc set to its camera.
#include <gst/gst.h>

G_BEGIN_DECLS

#define LORUN_TYPE_DEVICE_PROVIDER (lorun_device_provider_get_type())
G_DECLARE_FINAL_TYPE(LorunDeviceProvider, lorun_device_provider, LORUN, DEVICE_PROVIDER, GstDeviceProvider)

#define LORUN_TYPE_DEVICE (lorun_device_get_type())
G_DECLARE_FINAL_TYPE(LorunDevice, lorun_device, LORUN, DEVICE, GstDevice)

G_END_DECLS
