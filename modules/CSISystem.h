#pragma once

#include "framework/BaseRoles.h"
#include "framework/BasicModule.h"
#include "framework/BasicPort.h"
#include "support/BasicLockable.h"
#include "support/Settings.h"
#include "support/TrackableObject.h"

#include <memory>
#include <string>

namespace QEL { namespace CSI {

class DriverHandler;

using SystemStack = Tools::TrackableObject<Base::BasicPort<Base::BasicModule<Tools::BasicLockable<Base::System>>>>;

// The GenTL System module: TLGetInfo, the port "TLPort", a list of one
// interface, and the driver handler that finds the cameras.
class System : public SystemStack {
public:
    static std::shared_ptr<System> Create(const std::shared_ptr<Settings>& settings);
    explicit System(const std::shared_ptr<Settings>& settings);
    ~System() override;

    std::string GetTypeName() const override { return "TLSystem"; }
    std::int32_t GetHandleType() const override { return 1; }
    std::string GetPortName() const override { return "TLPort"; }

    void Close() override;
    bool IsOpen() const override { return open; }
    std::uint32_t GetNumInterfaces() override;
    Base::InfoPtr GetInterfaceID(std::uint32_t index) override;
    Base::InfoPtr GetInterfaceInfo(const std::string& id, INTERFACE_INFO_CMD command) override;
    std::size_t GetInterfaceInfoSize(const std::string& id, INTERFACE_INFO_CMD command, INFO_DATATYPE* type) override;
    std::shared_ptr<Base::Interface> OpenInterface(const std::string& id) override;
    bool UpdateInterfaceList(std::uint64_t timeout) override;
    Base::InfoPtr GetInfo(TL_INFO_CMD command) override;
    std::size_t GetInfoSize(TL_INFO_CMD command, INFO_DATATYPE* type) override;
    Base::InfoPtr GetPortInfo(PORT_INFO_CMD command) const override;

    const std::shared_ptr<DriverHandler>& GetDriverHandler() const { return driverHandler; }

private:
    void Initialize();
    void AddRegisters();
    void RequireOpen() const;
    std::string InterfaceID() const;

    bool open = false;
    std::shared_ptr<Base::Interface> interface;
    std::shared_ptr<Settings> settings;
    std::shared_ptr<DriverHandler> driverHandler;
    bool interfaceListUpdated = false;
};

} }
