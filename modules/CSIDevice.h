#pragma once

#include "framework/BaseRoles.h"
#include "framework/BasicModule.h"
#include "framework/BasicPort.h"
#include "support/BasicLockable.h"
#include "support/Settings.h"
#include "support/TrackableObject.h"
#include "transport/DriverHandler.h"

#include <memory>
#include <string>

namespace QEL { namespace CSI {

class Interface;
class RemoteDevice;
class DataStream;

using DeviceStack = Tools::TrackableObject<Base::BasicPort<Base::BasicModule<Tools::BasicLockable<Base::Device>>>>;

// The GenTL Device module of one opened camera: a port of its own with its
// document, the remote device port to the camera's registers, and the one
// data stream.
class Device : public DeviceStack {
public:
    static std::shared_ptr<Device> Create(const std::shared_ptr<Settings>& settings,
                                          const std::shared_ptr<Interface>& parent,
                                          const std::shared_ptr<DriverHandler>& driverHandler,
                                          const std::string& deviceId, DEVICE_ACCESS_FLAGS flags);
    Device(const std::shared_ptr<Settings>& settings, const std::shared_ptr<Interface>& parent);
    ~Device() override;

    std::string GetTypeName() const override { return "TLDevice"; }
    std::int32_t GetHandleType() const override { return 3; }
    std::string GetPortName() const override { return "DevicePort"; }

    void Close() override;
    bool IsOpen() const override { return open; }
    std::shared_ptr<Base::Port> GetPort() override;
    std::uint32_t GetNumDataStreams() override;
    std::string GetDataStreamID(std::uint32_t index) override;
    std::shared_ptr<Base::DataStream> OpenDataStream(const std::string& id) override;
    Base::InfoPtr GetInfo(DEVICE_INFO_CMD command) override;
    std::size_t GetInfoSize(DEVICE_INFO_CMD command, INFO_DATATYPE* type) override;
    std::shared_ptr<Base::Interface> GetParent() override;
    Base::InfoPtr GetPortInfo(PORT_INFO_CMD command) const override;

private:
    void Initialize(const std::shared_ptr<DriverHandler>& driverHandler, const std::string& id,
                    DEVICE_ACCESS_FLAGS flags);
    void AddRegisters(std::uint32_t inquiry, const std::string& driverPath, const std::string& location);
    void RequireOpen() const;
    std::string StreamID() const;
    std::shared_ptr<TransportLayer::ControlChannel> Control() const;

    bool open = false;
    std::shared_ptr<Settings> settings;
    std::shared_ptr<RemoteDevice> remoteDevice;
    std::shared_ptr<DataStream> dataStream;
    std::string deviceId;
    std::shared_ptr<DriverHandler::Device> driverDevice;
    std::weak_ptr<Interface> parent;
};

} }
