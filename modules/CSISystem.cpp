#include "modules/CSISystem.h"

#include "framework/EventRecords.h"
#include "framework/GenericRegister.h"
#include "framework/InfoFeed.h"
#include "framework/InfoRegisters.h"
#include "framework/XMLDescription.h"
#include "modules/CSIInterface.h"
#include "modules/CSILibrary.h"
#include "support/Allocation.h"
#include "modules/StaticInterfaceInfo.h"
#include "support/MutexGuard.h"
#include "transport/DriverHandler.h"

#include <boost/filesystem/path.hpp>
#include <boost/format.hpp>

#include <new>

namespace QEL { namespace CSI {

namespace {

constexpr std::uint64_t XmlAddress = 0x10000;
constexpr std::uint64_t VendorNameAddress = 0x1000000;
constexpr std::uint64_t ModelNameAddress = 0x1010000;
constexpr std::uint64_t TLIDAddress = 0x1020000;
constexpr std::uint64_t DisplayNameAddress = 0x1030000;
constexpr std::uint64_t VersionAddress = 0x1040000;
constexpr std::uint64_t PathAddress = 0x1050000;
constexpr std::uint64_t GenTLMajorAddress = 0x1070000;
constexpr std::uint64_t GenTLMinorAddress = 0x1080000;
constexpr std::uint64_t InterfaceCountAddress = 0x1090000;
constexpr std::uint64_t InterfaceSelectorAddress = 0x10A0000;
constexpr std::uint64_t UpdateListAddress = 0x10B0000;
constexpr std::uint64_t InterfaceIDAddress = 0x10C0000;
constexpr std::uint64_t InterfaceDisplayNameAddress = 0x10D0000;
constexpr std::uint64_t ListUpdatedAddress = 0x10E0000;

using UIntRegister = Base::GenericRegister<unsigned int>;
using StringInfoRegister = Base::VariableInfoRegister<Base::StringInfo>;

}

std::shared_ptr<System> System::Create(const std::shared_ptr<Settings>& settings)
{
    auto system = Tools::MakeShared<System>("Could not allocate system.", settings);
    system->Initialize();
    return system;
}

System::System(const std::shared_ptr<Settings>& settings) : settings(settings)
{
    if (!settings)
        throw Base::Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
}

System::~System()
{
    if (open)
        Close();
}

void System::Initialize()
{
    // From here on cameras are enumerated: TLOpen waits for one enumeration.
    driverHandler = DriverHandler::Create(DriverHandler::Options::FromSettings(settings, "DEV_"));
    if (!driverHandler)
        throw Base::Exception("Could not allocate driver handler.", GC_ERR_ERROR);
    Tools::Allocating("Could not create error event queue.", [&] { AddEvent<Base::ErrorData>(EVENT_ERROR, true); });
    Tools::Allocating("Could not create system change event queue.",
                      [&] { AddEvent<Base::SystemChangeEventData>(EVENT_SYSTEM_CHANGE, true); });
    InitializeModule();

    AddXMLDescription(Base::RegisterXMLDescription::ForModule(settings->GetSystemXML(), "Lorun_System", XmlAddress,
                                                              "No system XML file available."));
    AddRegisters();
    InitializePort();
    open = true;
}

void System::AddRegisters()
{
    auto self = GetShared<System>();
    System* raw = this;
    auto infoRegister = [&](std::uint64_t address, std::uint64_t size, TL_INFO_CMD command, const char* failure) {
        auto reg = Tools::MakeShared<StringInfoRegister>(failure, address, size, Base::AccessRead);
        Base::ConnectInfoFeed(*reg, [raw, command] { return raw->GetInfo(command); }, self);
        AddRegister(reg);
    };
    infoRegister(VendorNameAddress, 128, TL_INFO_VENDOR, "Could not allocate vendor name register.");
    infoRegister(ModelNameAddress, 128, TL_INFO_MODEL, "Could not allocate model name register.");
    infoRegister(TLIDAddress, 256, TL_INFO_ID, "Could not allocate TL ID register.");
    infoRegister(DisplayNameAddress, 256, TL_INFO_DISPLAYNAME, "Could not allocate interface display name register.");
    infoRegister(VersionAddress, 16, TL_INFO_VERSION, "Could not allocate TL Version register.");
    infoRegister(PathAddress, 1024, TL_INFO_PATHNAME, "Could not allocate TL Path register.");
    AddRegister(Tools::MakeShared<UIntRegister>("Could not allocate GenTL Version Major register.", GenTLMajorAddress,
                                                1u, Base::AccessRead));
    AddRegister(Tools::MakeShared<UIntRegister>("Could not allocate GenTL Version Minor register.", GenTLMinorAddress,
                                                5u, Base::AccessRead));

    auto update = Tools::MakeShared<UIntRegister>("Could not allocate interface update list register.",
                                                  UpdateListAddress, Base::AccessReadWrite);
    update->GetPreReadSignal().Connect([](UIntRegister& reg) { reg.SetValue(0); }, self);
    update->GetPostWriteSignal().Connect(
        [raw](UIntRegister& reg) {
            if (reg.GetValue() != 0)
                raw->UpdateInterfaceList(GENTL_INFINITE);
        },
        self);
    AddRegister(update);

    // Selector and count read 1 with the driver handler; only 0 may be selected.
    auto listed = [raw](UIntRegister& reg) {
        if (!raw->interfaceListUpdated)
            throw Base::Exception("Cannot select interface without interface list update.", GC_ERR_NOT_AVAILABLE);
        reg.SetValue(raw->driverHandler ? 1u : 0u);
    };
    auto selector = Tools::MakeShared<UIntRegister>("Could not allocate Interface Selector register.",
                                                    InterfaceSelectorAddress, Base::AccessNone);
    selector->GetPreWriteSignal().Connect(
        [raw](const unsigned int& value, UIntRegister&) {
            if (!raw->interfaceListUpdated)
                throw Base::Exception("Cannot select interface without interface list update.",
                                      GC_ERR_NOT_AVAILABLE);
            if (!raw->driverHandler)
                throw Base::Exception("No interface available.", GC_ERR_ERROR);
            if (value != 0)
                throw Base::Exception("Invalid interface selected.", GC_ERR_INVALID_INDEX);
        },
        self);
    selector->GetPreReadSignal().Connect(listed, self);
    AddRegister(selector);
    auto count = Tools::MakeShared<UIntRegister>("Could not allocate Interface Count register.", InterfaceCountAddress,
                                                 Base::AccessNone);
    count->GetPreReadSignal().Connect(listed, self);
    AddRegister(count);

    auto interfaceRegister = [&](std::uint64_t address, INTERFACE_INFO_CMD command) {
        auto reg =
            Tools::MakeShared<StringInfoRegister>("Could not allocate device info.", address, 256, Base::AccessNone);
        Base::ConnectInfoFeed(
            *reg,
            [raw, command]() -> Base::InfoPtr {
                if (!raw->interfaceListUpdated)
                    throw Base::Exception("Cannot get interface info without interface list update.",
                                          GC_ERR_NOT_AVAILABLE);
                if (!raw->driverHandler)
                    throw Base::Exception("No interface available.", GC_ERR_ERROR);
                auto info = GetStaticInterfaceInfo(command);
                if (!info)
                    throw Base::Exception("Could not retrieve info.", GC_ERR_ERROR);
                return info;
            },
            self);
        AddRegister(reg);
    };
    interfaceRegister(InterfaceIDAddress, INTERFACE_INFO_ID);
    interfaceRegister(InterfaceDisplayNameAddress, INTERFACE_INFO_DISPLAYNAME);

    auto updated = Tools::MakeShared<UIntRegister>("Could not allocate Interface List Updated register.",
                                                   ListUpdatedAddress, Base::AccessRead);
    updated->GetPreReadSignal().Connect([raw](UIntRegister& reg) { reg.SetValue(raw->interfaceListUpdated ? 1 : 0); },
                                        self);
    AddRegister(updated);
}

void System::RequireOpen() const
{
    if (!open)
        throw Base::Exception("System not open.", GC_ERR_INVALID_HANDLE);
}

std::string System::InterfaceID() const
{
    auto info = std::dynamic_pointer_cast<const Base::StringInfo>(GetStaticInterfaceInfo(INTERFACE_INFO_ID));
    if (!info || info->GetValue().empty())
        throw Base::Exception("Could not retrieve ID.", GC_ERR_ERROR);
    return info->GetValue();
}

void System::Close()
{
    RequireOpen();
    try {
        if (interface) {
            QEL::System::SharedMutexGuard guard(interface);
            if (interface->IsOpen())
                interface->Close();
        }
    } catch (...) {
    }
    interface.reset();
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
    try {
        driverHandler.reset();
    } catch (...) {
    }
    open = false;
}

std::uint32_t System::GetNumInterfaces()
{
    RequireOpen();
    if (!interfaceListUpdated)
        throw Base::Exception("Invalid without interface list update.", GC_ERR_NOT_AVAILABLE);
    return driverHandler ? 1 : 0;
}

Base::InfoPtr System::GetInterfaceID(std::uint32_t index)
{
    RequireOpen();
    if (!interfaceListUpdated)
        throw Base::Exception("Invalid without interface list update.", GC_ERR_NOT_AVAILABLE);
    if (!driverHandler)
        throw Base::Exception("No interface available.", GC_ERR_ERROR);
    if (index != 0)
        throw Base::Exception("Invalid index passed.", GC_ERR_INVALID_INDEX);
    return std::make_shared<Base::StringInfo>(InterfaceID());
}

Base::InfoPtr System::GetInterfaceInfo(const std::string& id, INTERFACE_INFO_CMD command)
{
    RequireOpen();
    if (!driverHandler)
        throw Base::Exception("No interface available.", GC_ERR_ERROR);
    if (id != InterfaceID())
        throw Base::Exception("Invalid ID passed.", GC_ERR_INVALID_ID);
    auto info = GetStaticInterfaceInfo(command);
    if (!info)
        throw Base::Exception("Could not retrieve info.", GC_ERR_ERROR);
    return info;
}

std::size_t System::GetInterfaceInfoSize(const std::string& id, INTERFACE_INFO_CMD command, INFO_DATATYPE* type)
{
    return SizeOf(GetInterfaceInfo(id, command), type, "Could not get system interface info.");
}

std::shared_ptr<Base::Interface> System::OpenInterface(const std::string& id)
{
    RequireOpen();
    if (!driverHandler)
        throw Base::Exception("No interface available.", GC_ERR_ERROR);
    std::string interfaceID;
    try {
        interfaceID = InterfaceID();
    } catch (const Base::Exception&) {
        throw Base::Exception("Could not retrieve interface ID.", GC_ERR_ERROR);
    }
    if (id != interfaceID)
        throw Base::Exception("Invalid interface ID passed.", GC_ERR_INVALID_ID);
    if (interface) {
        QEL::System::SharedMutexGuard guard(interface);
        if (interface->IsOpen())
            throw Base::Exception("Interface already open.", GC_ERR_RESOURCE_IN_USE);
    }
    auto created = Interface::Create(settings, GetShared<System>(), driverHandler);
    if (!created)
        throw Base::Exception("Could not allocate interface.", GC_ERR_ERROR);
    interface = created;
    return interface;
}

bool System::UpdateInterfaceList(std::uint64_t)
{
    RequireOpen();
    if (interfaceListUpdated)
        return false;
    GetRegisterAs<UIntRegister>(InterfaceCountAddress)->SetAccessMode(Base::AccessRead);
    auto selector = GetRegisterAs<UIntRegister>(InterfaceSelectorAddress);
    selector->SetAccessMode(driverHandler ? Base::AccessReadWrite : Base::AccessNone);
    for (std::uint64_t address : {InterfaceIDAddress, InterfaceDisplayNameAddress})
        GetRegisterAs<StringInfoRegister>(address)->SetAccessMode(driverHandler ? Base::AccessRead : Base::AccessNone);
    selector->SetValue(0);
    interfaceListUpdated = true;
    return static_cast<bool>(driverHandler);
}

Base::InfoPtr System::GetInfo(TL_INFO_CMD command)
{
    RequireOpen();
    return Library::GetSystemInfo(settings, command);
}

std::size_t System::GetInfoSize(TL_INFO_CMD command, INFO_DATATYPE* type)
{
    return SizeOf(GetInfo(command), type, "Could not get system info.");
}

Base::InfoPtr System::GetPortInfo(PORT_INFO_CMD command) const
{
    QEL::System::SharedMutexGuard guard(GetMutex());
    RequireOpen();
    auto systemInfo = [&](TL_INFO_CMD tl) { return Library::GetSystemInfo(settings, tl); };
    switch (command) {
    case PORT_INFO_ID: return systemInfo(TL_INFO_ID);
    case PORT_INFO_VENDOR: return systemInfo(TL_INFO_VENDOR);
    case PORT_INFO_MODEL: return systemInfo(TL_INFO_MODEL);
    case PORT_INFO_TLTYPE: return systemInfo(TL_INFO_TLTYPE);
    case PORT_INFO_MODULE: return std::make_shared<Base::StringInfo>(GetTypeName());
    case PORT_INFO_VERSION: return systemInfo(TL_INFO_VERSION);
    case PORT_INFO_PORTNAME: return std::make_shared<Base::StringInfo>(GetPortName());
    default: return SystemStack::GetPortInfo(command);
    }
}

} }
