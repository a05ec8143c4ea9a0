#pragma once

#include "base/Object.h"
#include "transport/Descriptors.h"
#include "transport/LibCSIWrapper_Impl.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace QEL { namespace LibCSI {

// One camera of the library model, with a wrapper instance of its own.
class Device : public virtual System::Object, public std::enable_shared_from_this<Device> {
public:
    Device(const std::string& key, const std::shared_ptr<System::Object>& parent);
    ~Device() override;

    const std::string& GetKey() const { return key; }
    std::shared_ptr<DeviceDescriptor> GetDeviceDescriptor() const { return descriptor; }
    const std::vector<std::shared_ptr<ConfigDescriptor>>& GetConfigurations() const { return configurations; }
    const std::shared_ptr<LibCSIWrapper_Impl>& GetWrapper() const { return wrapper; }
    // Memory that libcsi may still reach (frame records and what they point
    // to) stays until the camera is closed and libcsi's threads are gone.
    void KeepUntilClosed(std::shared_ptr<void> object);

private:
    std::mutex keptMutex;
    std::vector<std::shared_ptr<void>> keptUntilClosed; // destroyed after the wrapper below
    std::string key;
    std::shared_ptr<LibCSIWrapper_Impl> wrapper;
    std::shared_ptr<DeviceDescriptor> descriptor;
    std::vector<std::shared_ptr<ConfigDescriptor>> configurations;
    std::shared_ptr<System::Object> parent;
};

// The cameras libcsi lists, by their GUID texts; frozen once filled.
class DeviceList : public virtual System::Object {
public:
    DeviceList(std::uint32_t libraryId, const std::shared_ptr<LibCSIWrapper_Impl>& wrapper);
    ~DeviceList() override = default;

    std::int32_t GetCount() const { return static_cast<std::int32_t>(keys.size()); }
    const std::string& GetKey(std::int32_t index) const;

private:
    std::uint32_t libraryId;
    std::vector<std::string> keys;
    std::shared_ptr<LibCSIWrapper_Impl> wrapper;
};

} }
