#include "modules/CSIInterface.h"

#include "base/ProducerIdentity.h"
#include "framework/GenericRegister.h"
#include "framework/InfoFeed.h"
#include "framework/InfoRegisters.h"
#include "framework/XMLDescription.h"
#include "modules/CSIDevice.h"
#include "modules/CSISystem.h"
#include "modules/StaticInterfaceInfo.h"
#include "support/Allocation.h"
#include "support/MutexGuard.h"

#include <boost/filesystem/path.hpp>
#include <boost/format.hpp>

#include <new>

namespace QEL { namespace CSI {

namespace {

constexpr std::uint64_t XmlAddress = 0x10000;
constexpr std::uint64_t InterfaceIDAddress = 0x1000000;
constexpr std::uint64_t DisplayNameAddress = 0x1020000;
constexpr std::uint64_t DeviceCountAddress = 0x1030000;
constexpr std::uint64_t UpdateListAddress = 0x1040000;
constexpr std::uint64_t SelectorAddress = 0x1050000;
constexpr std::uint64_t DeviceIDAddress = 0x1060000;
constexpr std::uint64_t DeviceDisplayNameAddress = 0x1070000;
constexpr std::uint64_t VendorNameAddress = 0x1080000;
constexpr std::uint64_t ModelNameAddress = 0x1090000;
constexpr std::uint64_t AccessStatusAddress = 0x10B0000;
constexpr std::uint64_t ListUpdatedAddress = 0x10C0000;

using UIntRegister = Base::GenericRegister<unsigned int>;
using StringInfoRegister = Base::VariableInfoRegister<Base::StringInfo>;
using Int32InfoRegister = Base::FixedInfoRegister<Base::Int32Info>;

Base::InfoPtr Text(const std::string& text) { return std::make_shared<Base::StringInfo>(text); }

}

// The adapter.

std::shared_ptr<Interface::InterfaceChangeEventAdapter>
Interface::InterfaceChangeEventAdapter::Create(const std::shared_ptr<DriverHandler>& handler,
                                               const std::shared_ptr<ChangeQueue>& queue)
{
    auto adapter = std::make_shared<InterfaceChangeEventAdapter>(handler, queue);
    adapter->Connect();
    return adapter;
}

Interface::InterfaceChangeEventAdapter::InterfaceChangeEventAdapter(const std::shared_ptr<DriverHandler>& handler,
                                                                   const std::shared_ptr<ChangeQueue>& queue)
    : driverHandler(handler), queue(queue)
{
    if (!handler)
        throw Base::Exception("No driver handler passed.", GC_ERR_INVALID_PARAMETER);
    if (!queue)
        throw Base::Exception("No interface change queue passed.", GC_ERR_INVALID_PARAMETER);
    queueMutex = queue->GetMutex();
    if (!queueMutex)
        throw Base::Exception("Could not get mutex.", GC_ERR_ERROR);
}

void Interface::InterfaceChangeEventAdapter::Connect()
{
    QEL::System::SharedMutexGuard guard(queueMutex);
    auto self = GetShared<InterfaceChangeEventAdapter>();
    InterfaceChangeEventAdapter* raw = this;
    // Tracked: while a call runs the adapter lives, and a dead adapter gets none.
    connection = driverHandler->GetDeviceChangeSignal().Connect(
        [raw](const std::string& id, unsigned changed, unsigned state) { raw->OnDeviceChange(id, changed, state); },
        self);
}

void Interface::InterfaceChangeEventAdapter::OnDeviceChange(const std::string& id, unsigned changed, unsigned state)
{
    QEL::System::SharedMutexGuard guard(queueMutex);
    if (!queue)
        return;
    queue->AddData(Base::InterfaceChangeEventData<256>::Make(id, changed, state));
}

Interface::InterfaceChangeEventAdapter::~InterfaceChangeEventAdapter()
{
    try {
        {
            QEL::System::SharedMutexGuard handlerGuard(driverHandler);
            connection.Disconnect();
        }
        QEL::System::SharedMutexGuard guard(queueMutex);
        queue.reset();
    } catch (...) {
    }
}

// The interface.

std::shared_ptr<Interface> Interface::Create(const std::shared_ptr<Settings>& settings,
                                             const std::shared_ptr<System>& parent,
                                             const std::shared_ptr<DriverHandler>& driverHandler)
{
    auto created = Tools::MakeShared<Interface>("Could not allocate interface.", settings, parent, driverHandler);
    created->Initialize();
    return created;
}

Interface::Interface(const std::shared_ptr<Settings>& settings, const std::shared_ptr<System>& parent,
                     const std::shared_ptr<DriverHandler>& driverHandler)
    : settings(settings), driverHandler(driverHandler), parent(parent)
{
    if (!settings)
        throw Base::Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
    if (!driverHandler)
        throw Base::Exception("No driver handler passed.", GC_ERR_INVALID_PARAMETER);
    if (!parent)
        throw Base::Exception("No parent TL passed.", GC_ERR_INVALID_PARAMETER);
}

Interface::~Interface()
{
    if (open)
        Close();
}

void Interface::Initialize()
{
    std::shared_ptr<ChangeQueue> changes;
    Tools::Allocating("Could not create error event queue.", [&] { AddEvent<Base::ErrorData>(EVENT_ERROR, true); });
    Tools::Allocating("Could not create interface change event queue.",
                      [&] { changes = AddEvent<Base::InterfaceChangeEventData<256>>(EVENT_INTERFACE_CHANGE, true); });
    adapter = InterfaceChangeEventAdapter::Create(driverHandler, changes);
    if (!adapter)
        throw Base::Exception("Could not allocate interface change event adapter.", GC_ERR_ERROR);
    InitializeModule();

    AddXMLDescription(Base::RegisterXMLDescription::ForModule(settings->GetInterfaceXML(), "Lorun_Interface", XmlAddress,
                                                              "No interface XML file available."));
    AddRegisters();
    InitializePort();
    open = true;
}

void Interface::AddRegisters()
{
    auto self = GetShared<Interface>();
    Interface* raw = this;
    for (auto entry : {std::make_pair(InterfaceIDAddress, INTERFACE_INFO_ID),
                       std::make_pair(DisplayNameAddress, INTERFACE_INFO_DISPLAYNAME)}) {
        auto reg = std::make_shared<StringInfoRegister>(entry.first, 256, Base::AccessRead);
        const INTERFACE_INFO_CMD command = entry.second;
        Base::ConnectInfoFeed(*reg, [raw, command] { return raw->GetInfo(command); }, self);
        AddRegister(reg);
    }

    auto update = Tools::MakeShared<UIntRegister>("Could not allocate device update list register.", UpdateListAddress,
                                                  Base::AccessReadWrite);
    update->GetPreReadSignal().Connect([](UIntRegister& reg) { reg.SetValue(0); }, self);
    update->GetPostWriteSignal().Connect(
        [raw](UIntRegister& reg) {
            if (reg.GetValue() != 0)
                raw->UpdateDeviceList(GENTL_INFINITE);
        },
        self);
    AddRegister(update);

    auto count = Tools::MakeShared<UIntRegister>("Could not allocate Interface Device Count register.",
                                                 DeviceCountAddress, Base::AccessNone);
    count->GetPreReadSignal().Connect(
        [raw](UIntRegister& reg) {
            if (!raw->deviceList)
                throw Base::Exception("Device list not updated.", GC_ERR_ACCESS_DENIED);
            reg.SetValue(raw->deviceList->GetCount());
        },
        self);
    AddRegister(count);

    auto selector = Tools::MakeShared<UIntRegister>("Could not allocate Interface Selector register.", SelectorAddress,
                                                    Base::AccessNone);
    selector->GetPreWriteSignal().Connect(
        [raw](const unsigned int& value, UIntRegister&) {
            if (!raw->deviceList)
                throw Base::Exception("Device list not updated.", GC_ERR_ACCESS_DENIED);
            if (static_cast<std::int32_t>(value) < 0 || value >= raw->deviceList->GetCount())
                throw Base::Exception("Invalid device selected.", GC_ERR_INVALID_PARAMETER);
        },
        self);
    AddRegister(selector);

    // The device feed: the info of the selected device of the consumer's list.
    auto deviceFeed = [raw](DEVICE_INFO_CMD command) {
        return [raw, command]() -> Base::InfoPtr {
            if (!raw->deviceList)
                throw Base::Exception("Device list not updated.", GC_ERR_ACCESS_DENIED);
            auto selected = raw->GetRegisterAs<UIntRegister>(SelectorAddress);
            if (!selected)
                throw Base::Exception("Wrong register type.", GC_ERR_ERROR);
            const auto index = static_cast<std::int32_t>(selected->GetValue());
            if (index < 0)
                throw Base::Exception("Invalid device index set.", GC_ERR_INVALID_PARAMETER);
            auto info = raw->GetDeviceInfo(raw->GetDeviceID(static_cast<std::uint32_t>(index)), command);
            if (!info)
                throw Base::Exception("Info not available.", GC_ERR_ERROR);
            return info;
        };
    };
    const struct {
        std::uint64_t address;
        std::uint64_t size;
        DEVICE_INFO_CMD command;
        const char* failure;
    } deviceRegisters[] = {
        {DeviceIDAddress, 256, DEVICE_INFO_ID, "Could not allocate Interface Device ID register."},
        {DeviceDisplayNameAddress, 256, DEVICE_INFO_DISPLAYNAME,
         "Could not allocate Interface Device Display Name register."},
        {VendorNameAddress, 128, DEVICE_INFO_VENDOR, "Could not allocate Interface Vendor Name register."},
        {ModelNameAddress, 128, DEVICE_INFO_MODEL, "Could not allocate Interface Device Model Name register."},
    };
    for (const auto& entry : deviceRegisters) {
        auto reg = Tools::MakeShared<StringInfoRegister>(entry.failure, entry.address, entry.size, Base::AccessNone);
        Base::ConnectInfoFeed(*reg, deviceFeed(entry.command), self);
        AddRegister(reg);
    }
    auto access = std::make_shared<Int32InfoRegister>(AccessStatusAddress, Base::AccessNone);
    Base::ConnectInfoFeed(*access, deviceFeed(DEVICE_INFO_ACCESS_STATUS), self);
    AddRegister(access);

    auto updated = Tools::MakeShared<UIntRegister>("Could not allocate Device List Updated register.",
                                                   ListUpdatedAddress, Base::AccessRead);
    updated->GetPreReadSignal().Connect([raw](UIntRegister& reg) { reg.SetValue(raw->deviceList ? 1 : 0); },
                                        self);
    AddRegister(updated);
}

void Interface::RequireOpen() const
{
    if (!open)
        throw Base::Exception("Interface not open.", GC_ERR_INVALID_HANDLE);
}

void Interface::Close()
{
    RequireOpen();
    try {
        DeinitializePort();
    } catch (...) {
    }
    try {
        ClearPort();
    } catch (...) {
    }
    try {
        DeinitializeModule();
    } catch (...) {
    }
    try {
        ClearEvents();
    } catch (...) {
    }
    for (auto& entry : devices) {
        try {
            QEL::System::SharedMutexGuard guard(entry.second);
            if (entry.second->IsOpen())
                entry.second->Close();
        } catch (...) {
        }
    }
    devices.clear();
    adapter.reset();
    driverHandler.reset();
    open = false;
}

void Interface::DropClosedDevices()
{
    for (auto it = devices.begin(); it != devices.end();) {
        QEL::System::SharedMutexGuard guard(it->second);
        it = it->second->IsOpen() ? std::next(it) : devices.erase(it);
    }
}

std::uint32_t Interface::GetNumDevices()
{
    RequireOpen();
    if (!deviceList)
        throw Base::Exception("Invalid without device list update.", GC_ERR_NOT_AVAILABLE);
    return deviceList->GetCount();
}

std::string Interface::GetDeviceID(std::uint32_t index)
{
    RequireOpen();
    if (!deviceList)
        throw Base::Exception("Invalid without device list update.", GC_ERR_NOT_AVAILABLE);
    return deviceList->GetId(index);
}

std::shared_ptr<DriverHandler::DeviceInfo> Interface::FindDevice(const std::string& id, std::string& deviceID,
                                                                 bool consumerListFirst)
{
    if (consumerListFirst && deviceList && deviceList->Find(id, deviceID))
        return std::dynamic_pointer_cast<DriverHandler::DeviceInfo>(deviceList->GetInfo(deviceID));
    QEL::System::SharedMutexGuard guard(driverHandler);
    auto current = driverHandler->GetDeviceList(nullptr);
    if (!current || !current->Find(id, deviceID))
        throw Base::Exception("No device available with the given ID.", GC_ERR_INVALID_ID);
    return std::dynamic_pointer_cast<DriverHandler::DeviceInfo>(current->GetInfo(deviceID));
}

Base::InfoPtr Interface::GetDeviceInfo(const std::string& id, DEVICE_INFO_CMD command)
{
    RequireOpen();
    std::string deviceID;
    auto info = FindDevice(id, deviceID, true);
    if (!info)
        throw Base::Exception("No device available with the given ID.", GC_ERR_INVALID_ID);
    Base::InfoPtr answer;
    Tools::Allocating("Could not allocate info.", [&] {
        switch (command) {
        case DEVICE_INFO_ID:
            answer = Text(deviceID);
            break;
        case DEVICE_INFO_VENDOR:
            answer = Text(info->GetManufacturerName());
            break;
        case DEVICE_INFO_MODEL:
            answer = Text(info->GetModelName());
            break;
        case DEVICE_INFO_TLTYPE:
            answer = Text("Custom");
            break;
        case DEVICE_INFO_DISPLAYNAME:
            answer = Text(info->GetManufacturerName() + " " + info->GetModelName());
            break;
        case DEVICE_INFO_ACCESS_STATUS:
            answer = std::make_shared<Base::Int32Info>(info->IsAvailable() ? DEVICE_ACCESS_STATUS_READWRITE
                                                                           : DEVICE_ACCESS_STATUS_NOACCESS);
            break;
        case DEVICE_INFO_USER_DEFINED_NAME:
            if (!info->HasUserDefinedName())
                throw Base::Exception("No user defined name available.", GC_ERR_NOT_AVAILABLE);
            answer = Text(info->GetUserDefinedName());
            break;
        case DEVICE_INFO_SERIAL_NUMBER:
        case 1000:
            if (!info->HasSerialNumber())
                throw Base::Exception("No serial number available.", GC_ERR_NOT_AVAILABLE);
            answer = Text(info->GetSerialNumber());
            break;
        default:
            throw Base::Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
    if (!answer)
        throw Base::Exception("Could not allocate info.", GC_ERR_ERROR);
    return answer;
}

std::size_t Interface::GetDeviceInfoSize(const std::string& id, DEVICE_INFO_CMD command, INFO_DATATYPE* type)
{
    return SizeOf(GetDeviceInfo(id, command), type, "Could not get interface device info.");
}

std::shared_ptr<Base::Device> Interface::OpenDevice(const std::string& id, DEVICE_ACCESS_FLAGS flags)
{
    RequireOpen();
    std::string deviceID;
    FindDevice(id, deviceID, false);
    DropClosedDevices();
    if (devices.count(deviceID))
        throw Base::Exception("The requested device is already open.", GC_ERR_RESOURCE_IN_USE);
    auto device = Device::Create(settings, GetShared<Interface>(), driverHandler, deviceID, flags);
    if (!device)
        throw Base::Exception("Could not allocate device.", GC_ERR_ERROR);
    devices[deviceID] = device;
    return device;
}

bool Interface::UpdateDeviceList(std::uint64_t)
{
    RequireOpen();
    DropClosedDevices();
    bool changed = false;
    QEL::System::SharedMutexGuard guard(driverHandler);
    auto list = driverHandler->GetDeviceList(&changed);
    if (!list)
        throw Base::Exception("No device list retrieved.", GC_ERR_ERROR);
    deviceList = list;
    const std::uint32_t count = deviceList->GetCount();
    GetRegisterAs<UIntRegister>(DeviceCountAddress)->SetAccessMode(Base::AccessRead);
    auto selector = GetRegisterAs<UIntRegister>(SelectorAddress);
    selector->SetAccessMode(count ? Base::AccessReadWrite : Base::AccessNone);
    for (std::uint64_t address :
         {DeviceIDAddress, DeviceDisplayNameAddress, VendorNameAddress, ModelNameAddress, AccessStatusAddress})
        std::dynamic_pointer_cast<Base::InfoRegister>(GetRegister(address))
            ->SetAccessMode(count ? Base::AccessRead : Base::AccessNone);
    if (count)
        selector->SetValue(0);
    return changed;
}

Base::InfoPtr Interface::GetInfo(INTERFACE_INFO_CMD command)
{
    RequireOpen();
    return GetStaticInterfaceInfo(command);
}

std::size_t Interface::GetInfoSize(INTERFACE_INFO_CMD command, INFO_DATATYPE* type)
{
    return SizeOf(GetInfo(command), type, "Could not get interface info.");
}

std::shared_ptr<Base::System> Interface::GetParent()
{
    RequireOpen();
    auto system = parent.lock();
    if (!system)
        throw Base::Exception("Parent already closed", GC_ERR_ERROR);
    return system;
}

Base::InfoPtr Interface::GetPortInfo(PORT_INFO_CMD command) const
{
    QEL::System::SharedMutexGuard guard(GetMutex());
    RequireOpen();
    switch (command) {
    case PORT_INFO_ID: return GetStaticInterfaceInfo(INTERFACE_INFO_ID);
    case PORT_INFO_VENDOR: return Text("Tesmar Lumetric Industries");
    case PORT_INFO_MODEL:
        return Text(Base::ProducerModel);
    case PORT_INFO_TLTYPE: return GetStaticInterfaceInfo(INTERFACE_INFO_TLTYPE);
    case PORT_INFO_MODULE: return Text(GetTypeName());
    case PORT_INFO_VERSION: return Text(settings->GetVersion().ToString('.'));
    case PORT_INFO_PORTNAME: return Text(GetPortName());
    default: return InterfaceStack::GetPortInfo(command);
    }
}

} }
