#include "gst/LorunDeviceProvider.h"

#include "base/NamedThread.h"
#include "client/Session.h"
#include "gst/Caps.h"
#include "gst/DefaultProducer.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

GST_DEBUG_CATEGORY_STATIC(lorun_device_provider_debug);
#define GST_CAT_DEFAULT lorun_device_provider_debug

namespace {

constexpr EVENT_TYPE DeviceListChanged = 1001; // the interface's custom event
constexpr std::uint64_t EventWaitMs = 100;

struct CameraEntry {
    std::string id, name, serial;
};

// The cameras that are there now (listed, and not reported without access).
std::vector<CameraEntry> PresentCameras(LorunClient::Session& session)
{
    std::vector<CameraEntry> present;
    for (const LorunClient::Session::Camera& camera : session.Cameras()) {
        if (session.CameraAccess(camera) == DEVICE_ACCESS_STATUS_NOACCESS)
            continue;
        const std::string vendor = session.CameraInfo(camera, DEVICE_INFO_VENDOR);
        const std::string model = session.CameraInfo(camera, DEVICE_INFO_MODEL);
        const std::string serial = session.CameraInfo(camera, DEVICE_INFO_SERIAL_NUMBER);
        present.push_back({camera.id, vendor + " " + model + " (" + serial + ")", serial});
    }
    return present;
}

}

// ---- the device ----

struct _LorunDevice {
    GstDevice parent;
    gchar* producer;
    gchar* deviceId;
};

G_DEFINE_TYPE(LorunDevice, lorun_device, GST_TYPE_DEVICE)

static GstElement* lorun_device_create_element(GstDevice* device, const gchar* name)
{
    LorunDevice* self = LORUN_DEVICE(device);
    GstElement* element = gst_element_factory_make("lorunsrc", name);
    if (element)
        g_object_set(element, "producer", self->producer, "device-id", self->deviceId, nullptr);
    return element;
}

static void lorun_device_finalize(GObject* object)
{
    LorunDevice* self = LORUN_DEVICE(object);
    g_free(self->producer);
    g_free(self->deviceId);
    G_OBJECT_CLASS(lorun_device_parent_class)->finalize(object);
}

static void lorun_device_class_init(LorunDeviceClass* klass)
{
    GST_DEVICE_CLASS(klass)->create_element = lorun_device_create_element;
    G_OBJECT_CLASS(klass)->finalize = lorun_device_finalize;
}

static void lorun_device_init(LorunDevice*) {}

namespace {

GstDevice* NewDevice(const std::string& producer, const CameraEntry& camera)
{
    GstCaps* caps = LorunGst::TemplateCaps();
    GstStructure* properties =
        gst_structure_new("lorun-device", "device-id", G_TYPE_STRING, camera.id.c_str(), "serial", G_TYPE_STRING,
                          camera.serial.c_str(), "producer", G_TYPE_STRING, producer.c_str(), nullptr);
    auto* device = static_cast<LorunDevice*>(g_object_new(LORUN_TYPE_DEVICE, "display-name", camera.name.c_str(),
                                                          "device-class", "Video/Source", "caps", caps,
                                                          "properties", properties, nullptr));
    gst_caps_unref(caps);
    gst_structure_free(properties);
    device->producer = g_strdup(producer.c_str());
    device->deviceId = g_strdup(camera.id.c_str());
    return GST_DEVICE(device);
}

}

// ---- the provider ----

// While monitoring: the session, the interfaces' events and the thread that
// waits on them. The provider owns it; stop ends and joins the thread.
struct Monitor {
    std::shared_ptr<LorunClient::Session> session;
    std::string producer;
    std::vector<std::pair<IF_HANDLE, EVENT_HANDLE>> events;
    std::atomic<bool> stopping{false};
    std::thread thread;
    std::map<std::string, GstDevice*> shown; // by device ID; the provider holds the devices
};

struct _LorunDeviceProvider {
    GstDeviceProvider parent;
    Monitor* monitor;
};

G_DEFINE_TYPE(LorunDeviceProvider, lorun_device_provider, GST_TYPE_DEVICE_PROVIDER)

static GList* lorun_device_provider_probe(GstDeviceProvider*)
{
    const std::string producer = LorunGst::DefaultProducer();
    if (producer.empty())
        return nullptr; // no producer: no camera, and nothing to complain about
    GList* devices = nullptr;
    try {
        std::shared_ptr<LorunClient::Session> session = LorunClient::SharedSession(producer);
        for (const CameraEntry& camera : PresentCameras(*session))
            devices = g_list_append(devices, gst_object_ref_sink(NewDevice(producer, camera)));
    } catch (const std::exception& e) {
        GST_INFO("no cameras from %s: %s", producer.c_str(), e.what());
    }
    return devices;
}

namespace {

// Shows what is there now: devices of cameras that came are added, those of
// cameras that went are removed.
void Refresh(GstDeviceProvider* provider, Monitor& monitor)
{
    std::vector<CameraEntry> present;
    try {
        present = PresentCameras(*monitor.session);
    } catch (const std::exception& e) {
        GST_INFO_OBJECT(provider, "listing the cameras failed: %s", e.what());
        return;
    }
    std::map<std::string, GstDevice*> still;
    for (const CameraEntry& camera : present) {
        auto known = monitor.shown.find(camera.id);
        if (known != monitor.shown.end()) {
            still.insert(*known);
            monitor.shown.erase(known);
            continue;
        }
        GST_INFO_OBJECT(provider, "camera %s came", camera.id.c_str());
        GstDevice* device = GST_DEVICE(gst_object_ref_sink(NewDevice(monitor.producer, camera)));
        gst_device_provider_device_add(provider, device);
        still[camera.id] = device;
    }
    for (const auto& gone : monitor.shown) {
        GST_INFO_OBJECT(provider, "camera %s went", gone.first.c_str());
        gst_device_provider_device_remove(provider, gone.second);
        gst_object_unref(gone.second);
    }
    monitor.shown = std::move(still);
}

void WatchInterfaces(GstDeviceProvider* provider, Monitor* monitor)
{
    LorunClient::GenTLProducer& producer = monitor->session->Producer();
    std::vector<unsigned char> data(4096);
    while (!monitor->stopping) {
        bool changed = false;
        for (const auto& entry : monitor->events) {
            size_t size = data.size();
            changed |= producer.EventGetData(entry.second, data.data(), &size, EventWaitMs) == GC_ERR_SUCCESS;
        }
        if (changed && !monitor->stopping)
            Refresh(provider, *monitor);
    }
}
}

static gboolean lorun_device_provider_start(GstDeviceProvider* provider)
{
    LorunDeviceProvider* self = LORUN_DEVICE_PROVIDER(provider);
    auto monitor = std::make_unique<Monitor>();
    monitor->producer = LorunGst::DefaultProducer();
    if (monitor->producer.empty())
        return FALSE;
    try {
        monitor->session = LorunClient::SharedSession(monitor->producer);
    } catch (const std::exception& e) {
        GST_INFO_OBJECT(provider, "cannot monitor %s: %s", monitor->producer.c_str(), e.what());
        return FALSE;
    }
    LorunClient::GenTLProducer& producer = monitor->session->Producer();
    for (const auto& interface : monitor->session->Interfaces()) {
        EVENT_HANDLE event = nullptr;
        if (producer.GCRegisterEvent(interface.second, DeviceListChanged, &event) == GC_ERR_SUCCESS)
            monitor->events.emplace_back(interface.second, event);
    }
    if (monitor->events.empty()) {
        GST_INFO_OBJECT(provider, "no interface of %s reports its cameras", monitor->producer.c_str());
        return FALSE;
    }
    Refresh(provider, *monitor);
    monitor->thread = QEL::Base::StartNamedThread("lorun-monitor", WatchInterfaces, provider, monitor.get());
    self->monitor = monitor.release();
    return TRUE;
}

static void lorun_device_provider_stop(GstDeviceProvider* provider)
{
    LorunDeviceProvider* self = LORUN_DEVICE_PROVIDER(provider);
    std::unique_ptr<Monitor> monitor(self->monitor);
    self->monitor = nullptr;
    if (!monitor)
        return;
    LorunClient::GenTLProducer& producer = monitor->session->Producer();
    monitor->stopping = true;
    for (const auto& entry : monitor->events)
        producer.EventKill(entry.second);
    monitor->thread.join();
    for (const auto& entry : monitor->events)
        producer.GCUnregisterEvent(entry.first, DeviceListChanged);
    for (const auto& shown : monitor->shown) {
        gst_device_provider_device_remove(provider, shown.second);
        gst_object_unref(shown.second);
    }
}

static void lorun_device_provider_class_init(LorunDeviceProviderClass* klass)
{
    GstDeviceProviderClass* providerClass = GST_DEVICE_PROVIDER_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(lorun_device_provider_debug, "lorundeviceprovider", 0, "GenTL camera discovery");
    providerClass->probe = lorun_device_provider_probe;
    providerClass->start = lorun_device_provider_start;
    providerClass->stop = lorun_device_provider_stop;
    gst_device_provider_class_set_static_metadata(providerClass, "GenTL camera provider", "Source/Video",
                                                  "Lists the cameras of the GenTL producer", "Lorun developers");
}

static void lorun_device_provider_init(LorunDeviceProvider* self) { self->monitor = nullptr; }
