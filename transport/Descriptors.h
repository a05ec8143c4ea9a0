#pragma once

// What the library model says about a device, its configuration and its endpoints.
#include "base/Object.h"
#include "transport/CSIInfo.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace QEL { namespace LibCSI {

class DeviceDescriptor : public virtual System::Object {
public:
    explicit DeviceDescriptor(std::shared_ptr<CSIInfo> info) : info(std::move(info)) {}
    ~DeviceDescriptor() override = default;

    virtual std::uint8_t GetConfigurationCount() const { return 1; }
    virtual std::uint8_t GetClass() const { return 0; }

    std::string GetModelName() const { return info->GetModelName(); }
    std::string GetFamilyName() const { return info->GetFamilyName(); }
    std::string GetManufacturerName() const { return info->GetManufacturerName(); }
    std::string GetDeviceGuid() const { return info->GetDeviceGuid(); }
    std::string GetSerialNumber() const { return info->GetSerialNumber(); }
    std::string GetUserDefinedName() const { return info->GetUserDefinedName(); }
    std::string GetPortID() const { return info->GetPortID(); }
    std::uint8_t GetAvailability() const { return info->GetAvailability(); }
    const std::shared_ptr<CSIInfo>& GetInfo() const { return info; }

private:
    std::shared_ptr<CSIInfo> info;
};

// The one configuration of a device: a single interface.
class ConfigDescriptor : public virtual System::Object {
public:
    ConfigDescriptor() { record[4] = 1; }
    ~ConfigDescriptor() override = default;

    virtual std::uint8_t GetFirst() const { return record[0]; }
    virtual std::uint8_t GetSecond() const { return record[1]; }
    std::uint8_t GetInterfaceCount() const { return record[4]; }

private:
    std::array<std::uint8_t, 10> record{};
};

class EndpointDescriptor : public virtual System::Object {
public:
    explicit EndpointDescriptor(std::uint32_t number) : number(number) {}
    ~EndpointDescriptor() override = default;

    std::uint32_t GetNumber() const { return number; }

private:
    std::uint32_t number;
};

} }
