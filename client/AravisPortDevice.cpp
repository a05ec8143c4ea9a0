#include "client/AravisPortDevice.h"

extern "C" {

struct LorunPortDevice {
    ArvDevice parent;
    LorunClient::PortMemory* memory;
};

struct LorunPortDeviceClass {
    ArvDeviceClass parent_class;
};

G_DEFINE_TYPE(LorunPortDevice, lorun_port_device, ARV_TYPE_DEVICE)

static LorunClient::PortMemory& MemoryOf(ArvDevice* device)
{
    return *reinterpret_cast<LorunPortDevice*>(device)->memory;
}

static gboolean lorun_port_device_read_memory(ArvDevice* device, guint64 address, guint32 size, void* buffer,
                                              GError** error)
{
    const auto& read = MemoryOf(device).read;
    if (read && read(address, size, buffer))
        return TRUE;
    g_set_error(error, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_TRANSFER_ERROR, "read of %u bytes at 0x%llx failed", size,
                static_cast<unsigned long long>(address));
    return FALSE;
}

static gboolean lorun_port_device_write_memory(ArvDevice* device, guint64 address, guint32 size, void* buffer,
                                               GError** error)
{
    const auto& write = MemoryOf(device).write;
    if (write && write(address, size, buffer))
        return TRUE;
    g_set_error(error, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_TRANSFER_ERROR, "write of %u bytes at 0x%llx failed", size,
                static_cast<unsigned long long>(address));
    return FALSE;
}

static void lorun_port_device_init(LorunPortDevice* device) { device->memory = nullptr; }

static void lorun_port_device_finalize(GObject* object)
{
    delete reinterpret_cast<LorunPortDevice*>(object)->memory;
    G_OBJECT_CLASS(lorun_port_device_parent_class)->finalize(object);
}

static void lorun_port_device_class_init(LorunPortDeviceClass* klass)
{
    G_OBJECT_CLASS(klass)->finalize = lorun_port_device_finalize;
    ArvDeviceClass* device = ARV_DEVICE_CLASS(klass);
    device->read_memory = lorun_port_device_read_memory;
    device->write_memory = lorun_port_device_write_memory;
}

}

namespace LorunClient {

ArvDevice* NewPortDevice(PortMemory memory)
{
    auto* device = static_cast<LorunPortDevice*>(g_object_new(lorun_port_device_get_type(), nullptr));
    device->memory = new PortMemory(std::move(memory));
    return &device->parent;
}

}
