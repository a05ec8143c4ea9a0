#pragma once

// What the modules above see of the camera list, whatever bus is beneath.
#include "support/Lockable.h"
#include "support/Signal.h"

#include <cstdint>
#include <memory>
#include <string>

namespace QEL { namespace TransportLayer {

class DeviceInfo : public virtual System::Object {
public:
    virtual std::string GetModelName() const = 0;
    virtual bool HasFamilyName() const = 0;
    virtual std::string GetFamilyName() const = 0;
    virtual std::string GetManufacturerName() const = 0;
    virtual bool HasSerialNumber() const = 0;
    virtual std::string GetSerialNumber() const = 0;
    virtual bool HasUserDefinedName() const = 0;
    virtual std::string GetUserDefinedName() const = 0;
    virtual bool IsAvailable() const = 0;
};

class DeviceList : public virtual System::Object {
public:
    virtual std::uint32_t GetCount() const = 0;
    virtual std::string GetId(std::uint32_t index) const = 0;
    // The ID of the device that `text` names by ID, GUID, serial number, key, location or name.
    virtual bool Find(const std::string& text, std::string& id) const = 0;
    virtual std::shared_ptr<DeviceInfo> GetInfo(const std::string& id) const = 0;
};

class DriverHandler : public System::Lockable {
public:
    // Device ID, then the changed and the state bits: bit 0 present, bit 1 available.
    using DeviceChangeSignal = Tools::Signal<void(const std::string&, unsigned, unsigned)>;

    virtual std::shared_ptr<DeviceList> GetDeviceList(bool* changed) = 0;
    virtual DeviceChangeSignal& GetDeviceChangeSignal() = 0;
};

} }
