#include "transport/LibCSIDevice.h"

#include "base/Exception.h"

namespace QEL { namespace LibCSI {

Device::Device(const std::string& key, const std::shared_ptr<System::Object>& parent)
    : key(key), wrapper(std::make_shared<LibCSIWrapper_Impl>()), parent(parent)
{
    std::shared_ptr<CSIInfo> info;
    if (!wrapper->GetDeviceInfo(key, info) || !info)
        throw System::Exception("Could not get device info.");
    descriptor = std::make_shared<DeviceDescriptor>(info);
    configurations.push_back(std::make_shared<ConfigDescriptor>());
}

void Device::KeepUntilClosed(std::shared_ptr<void> object)
{
    std::lock_guard<std::mutex> lock(keptMutex);
    keptUntilClosed.push_back(std::move(object));
}

Device::~Device()
{
    // The guard's release comes before the wrapper closes the camera.
    parent.reset();
}

DeviceList::DeviceList(std::uint32_t libraryId, const std::shared_ptr<LibCSIWrapper_Impl>& wrapper)
    : libraryId(libraryId), wrapper(wrapper)
{
    LibCSIWrapper_Impl::InfoTable table;
    wrapper->GetDeviceList(table);
    if (table.empty())
        throw System::Exception("Could not get device list.");
    for (const auto& entry : table)
        keys.push_back(entry.second ? entry.second->GetDeviceGuid() : std::string());
}

const std::string& DeviceList::GetKey(std::int32_t index) const
{
    if (index < 0 || index >= GetCount())
        throw System::Exception("Invalid device number passed.");
    return keys[static_cast<std::size_t>(index)];
}

} }
