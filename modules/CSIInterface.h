#pragma once

#include "framework/BaseRoles.h"
#include "framework/BasicEventQueue.h"
#include "framework/BasicModule.h"
#include "framework/BasicPort.h"
#include "framework/EventRecords.h"
#include "support/BasicLockable.h"
#include "support/Settings.h"
#include "support/Signal.h"
#include "support/TrackableObject.h"
#include "transport/DriverHandler.h"

#include <map>
#include <memory>
#include <string>

namespace QEL { namespace CSI {

class System;

using InterfaceStack =
    Tools::TrackableObject<Base::BasicPort<Base::BasicModule<Tools::BasicLockable<Base::Interface>>>>;

// The GenTL Interface module: the cameras the driver handler found, as a
// device list the consumer updates when it wants, and event 1001 for each
// camera that comes or goes meanwhile.
class Interface : public InterfaceStack {
public:
    using ChangeQueue = Base::BasicEventQueue<Base::InterfaceChangeEventData<256>>;

    // Carries the driver handler's change signal, on the enumeration thread, into event 1001.
    class InterfaceChangeEventAdapter : public Tools::TrackableObject<QEL::System::Object> {
    public:
        static std::shared_ptr<InterfaceChangeEventAdapter> Create(const std::shared_ptr<DriverHandler>& handler,
                                                                   const std::shared_ptr<ChangeQueue>& queue);
        InterfaceChangeEventAdapter(const std::shared_ptr<DriverHandler>& handler,
                                    const std::shared_ptr<ChangeQueue>& queue);
        ~InterfaceChangeEventAdapter() override;

    private:
        void Connect();
        void OnDeviceChange(const std::string& id, unsigned changed, unsigned state);

        std::shared_ptr<QEL::System::Mutex> queueMutex;
        std::shared_ptr<DriverHandler> driverHandler;
        std::shared_ptr<ChangeQueue> queue;
        Tools::Connection connection;
    };

    static std::shared_ptr<Interface> Create(const std::shared_ptr<Settings>& settings,
                                             const std::shared_ptr<System>& parent,
                                             const std::shared_ptr<DriverHandler>& driverHandler);
    Interface(const std::shared_ptr<Settings>& settings, const std::shared_ptr<System>& parent,
              const std::shared_ptr<DriverHandler>& driverHandler);
    ~Interface() override;

    std::string GetTypeName() const override { return "TLInterface"; }
    std::int32_t GetHandleType() const override { return 2; }
    std::string GetPortName() const override { return "InterfacePort"; }

    void Close() override;
    bool IsOpen() const override { return open; }
    std::uint32_t GetNumDevices() override;
    std::string GetDeviceID(std::uint32_t index) override;
    Base::InfoPtr GetDeviceInfo(const std::string& id, DEVICE_INFO_CMD command) override;
    std::size_t GetDeviceInfoSize(const std::string& id, DEVICE_INFO_CMD command, INFO_DATATYPE* type) override;
    std::shared_ptr<Base::Device> OpenDevice(const std::string& id, DEVICE_ACCESS_FLAGS flags) override;
    bool UpdateDeviceList(std::uint64_t timeout) override;
    Base::InfoPtr GetInfo(INTERFACE_INFO_CMD command) override;
    std::size_t GetInfoSize(INTERFACE_INFO_CMD command, INFO_DATATYPE* type) override;
    std::shared_ptr<Base::System> GetParent() override;
    Base::InfoPtr GetPortInfo(PORT_INFO_CMD command) const override;

private:
    void Initialize();
    void AddRegisters();
    void RequireOpen() const;
    void DropClosedDevices();
    // The device `id` names in the consumer's list, or else in the handler's current one.
    std::shared_ptr<DriverHandler::DeviceInfo> FindDevice(const std::string& id, std::string& deviceID,
                                                          bool consumerListFirst);

    bool open = false;
    std::shared_ptr<TransportLayer::DeviceList> deviceList;
    std::map<std::string, std::shared_ptr<Base::Device>> devices;
    std::shared_ptr<Settings> settings;
    std::shared_ptr<InterfaceChangeEventAdapter> adapter;
    std::shared_ptr<DriverHandler> driverHandler;
    std::weak_ptr<System> parent;
};

} }
