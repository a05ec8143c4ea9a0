#include "tests/AravisDevice.h"

#include "framework/BasePort.h"

namespace AravisTest {
namespace {

Memory& CurrentMemory()
{
    static Memory memory;
    return memory;
}

}
}

extern "C" {

struct CallbackDevice {
    ArvDevice parent;
};

struct CallbackDeviceClass {
    ArvDeviceClass parent_class;
};

G_DEFINE_TYPE(CallbackDevice, callback_device, ARV_TYPE_DEVICE)

static gboolean callback_device_read_memory(ArvDevice*, guint64 address, guint32 size, void* buffer, GError**)
{
    const auto& read = AravisTest::CurrentMemory().read;
    return read && read(address, size, buffer);
}

static gboolean callback_device_write_memory(ArvDevice*, guint64 address, guint32 size, void* buffer, GError**)
{
    const auto& write = AravisTest::CurrentMemory().write;
    return write && write(address, size, buffer);
}

static void callback_device_init(CallbackDevice*) {}

static void callback_device_class_init(CallbackDeviceClass* klass)
{
    ArvDeviceClass* device = ARV_DEVICE_CLASS(klass);
    device->read_memory = callback_device_read_memory;
    device->write_memory = callback_device_write_memory;
}

}

namespace AravisTest {

ArvDevice* NewDevice(Memory memory)
{
    CurrentMemory() = std::move(memory);
    return static_cast<ArvDevice*>(g_object_new(callback_device_get_type(), nullptr));
}

}

namespace AravisTest {

ArvDevice* DeviceOverPort(QEL::Base::Port& port)
{
    auto through = [&port](auto access) {
        return [&port, access](std::uint64_t address, std::uint32_t size, void* buffer) {
            try {
                std::size_t done = size;
                access(port, address, buffer, &done);
                return done == size;
            } catch (...) {
                return false;
            }
        };
    };
    return NewDevice(
        {through([](QEL::Base::Port& p, std::uint64_t a, void* b, std::size_t* s) { p.ReadPort(a, b, s); }),
         through([](QEL::Base::Port& p, std::uint64_t a, void* b, std::size_t* s) { p.WritePort(a, b, s); })});
}

}
