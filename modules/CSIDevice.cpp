#include "modules/CSIDevice.h"

#include "framework/EventRecords.h"
#include "framework/GenericRegister.h"
#include "framework/InfoFeed.h"
#include "framework/InfoRegisters.h"
#include "framework/StringRegister.h"
#include "framework/XMLDescription.h"
#include "modules/CSIDataStream.h"
#include "modules/CSIInterface.h"
#include "modules/CSIRemoteDevice.h"
#include "support/Allocation.h"
#include "support/MutexGuard.h"
#include "transport/CCIControlChannel.h"

#include <boost/format.hpp>

#include <new>

namespace QEL { namespace CSI {

using Base::Exception;

namespace {

constexpr std::uint64_t XmlAddress = 0x10000;
constexpr std::uint64_t IdAddress = 0x1000000;
constexpr std::uint64_t DisplayNameAddress = 0x1010000;
constexpr std::uint64_t VendorAddress = 0x1020000;
constexpr std::uint64_t ModelAddress = 0x1030000;
constexpr std::uint64_t StreamSelectorAddress = 0x1050000;
constexpr std::uint64_t StreamCountAddress = 0x1060000;
constexpr std::uint64_t StreamIdAddress = 0x1070000;
constexpr std::uint64_t InquiryAddress = 0x1090000;
constexpr std::uint64_t DriverPathAddress = 0x10A0000;
constexpr std::uint64_t LocationAddress = 0x10B0000;
constexpr std::uint64_t ResetAddress = 0x10C0000;
constexpr std::uint64_t DriverVersionAddress = 0x10D0000;
constexpr std::uint64_t LibcsiVersionAddress = 0x10E0000;
constexpr std::uint64_t LaneCountAddress = 0x10F0000;
constexpr std::uint64_t ClockAddress = 0x1100000;
constexpr std::uint64_t InterfaceVersionAddress = 0x1110000;
constexpr std::uint64_t PacketSizeAddress = 0x1120000;
constexpr std::uint64_t PacketCountAddress = 0x1130000;

using UIntRegister = Base::GenericRegister<unsigned int>;
using StringInfoRegister = Base::VariableInfoRegister<Base::StringInfo>;

}

std::shared_ptr<Device> Device::Create(const std::shared_ptr<Settings>& settings,
                                       const std::shared_ptr<Interface>& parent,
                                       const std::shared_ptr<DriverHandler>& driverHandler, const std::string& deviceId,
                                       DEVICE_ACCESS_FLAGS flags)
{
    auto device = Tools::MakeShared<Device>("Could not allocate device.", settings, parent);
    device->Initialize(driverHandler, deviceId, flags);
    return device;
}

Device::Device(const std::shared_ptr<Settings>& settings, const std::shared_ptr<Interface>& parentInterface)
    : settings(settings), parent(parentInterface)
{
    if (!settings)
        throw Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
    if (!parentInterface)
        throw Exception("No parent interface passed.", GC_ERR_INVALID_PARAMETER);
}

Device::~Device()
{
    if (open)
        Tools::Swallow([&] { Close(); });
}

void Device::Initialize(const std::shared_ptr<DriverHandler>& driverHandler, const std::string& id,
                        DEVICE_ACCESS_FLAGS flags)
{
    if (!driverHandler)
        throw Exception("No driver handler passed.", GC_ERR_INVALID_PARAMETER);
    if (flags > 999)
        throw Exception("Unsupported open flag.", GC_ERR_NOT_IMPLEMENTED);
    if (flags != DEVICE_ACCESS_READONLY && flags != DEVICE_ACCESS_CONTROL && flags != DEVICE_ACCESS_EXCLUSIVE)
        throw Exception("Invalid open flag.", GC_ERR_INVALID_PARAMETER);
    const bool readOnly = flags == DEVICE_ACCESS_READONLY;

    std::string driverPath, location;
    std::uint32_t inquiry = 0;
    {
        QEL::System::SharedMutexGuard guard(driverHandler);
        driverDevice = driverHandler->OpenDevice(id, settings, readOnly);
        if (!driverDevice)
            throw Exception("Invalid device retrieved.", GC_ERR_ERROR);
        if (driverDevice->HasDeviceKey()) {
            driverPath = driverDevice->GetDeviceKey();
            inquiry |= 1;
        }
        if (driverDevice->HasDeviceLocation()) {
            location = driverDevice->GetDeviceLocation();
            inquiry |= 2;
        }
    }
    // Camera events are off in this transport: event 4 stands on a queue of its own.
    Tools::Allocating("Could not create device event queue.",
                      [&] { AddEvent<Base::DeviceEventData<256>>(EVENT_REMOTE_DEVICE, true); });
    deviceId = id;
    Tools::Allocating("Could not create error event queue.", [&] { AddEvent<Base::ErrorData>(EVENT_ERROR, true); });
    Tools::Allocating("Could not create feature invalidate event queue.",
                      [&] { AddEvent<Base::FeatureInvalidateData>(EVENT_FEATURE_INVALIDATE, true); });
    Tools::Allocating("Could not create feature change event queue.",
                      [&] { AddEvent<Base::FeatureChangeData>(EVENT_FEATURE_CHANGE, true); });
    InitializeModule();
    AddXMLDescription(Base::RegisterXMLDescription::ForModule(settings->GetDeviceXML(), "Lorun_Device", XmlAddress,
                                                              "No device XML file available."));
    AddRegisters(inquiry, driverPath, location);
    InitializePort();
    remoteDevice = RemoteDevice::Create(settings, Control(), deviceId);
    if (!remoteDevice)
        throw Exception("Could not allocate remote device.", GC_ERR_ERROR);
    open = true;
}

void Device::AddRegisters(std::uint32_t inquiry, const std::string& driverPath, const std::string& location)
{
    auto self = GetShared<Device>();
    Device* raw = this;
    auto infoRegister = [&](std::uint64_t address, std::uint64_t size, DEVICE_INFO_CMD command, const char* failure) {
        auto reg = Tools::MakeShared<StringInfoRegister>(failure, address, size, Base::AccessRead);
        Base::ConnectInfoFeed(*reg, [raw, command] { return raw->GetInfo(command); }, self);
        AddRegister(reg);
    };
    infoRegister(IdAddress, 256, DEVICE_INFO_ID, "Could not allocate device id register.");
    infoRegister(DisplayNameAddress, 256, DEVICE_INFO_DISPLAYNAME, "Could not allocate device display name register.");
    infoRegister(VendorAddress, 128, DEVICE_INFO_VENDOR, "Could not allocate device vendor name register.");
    infoRegister(ModelAddress, 128, DEVICE_INFO_MODEL, "Could not allocate device model name register.");

    const unsigned streams = driverDevice->HasStreamChannel() ? 1u : 0u;
    AddRegister(Tools::MakeShared<UIntRegister>("Could not allocate device stream count register.", StreamCountAddress,
                                                streams, Base::AccessRead));
    auto selector = Tools::MakeShared<UIntRegister>("Could not allocate device stream selector register.",
                                                    StreamSelectorAddress, 0u, Base::AccessReadWrite);
    selector->GetPreWriteSignal().Connect(
        [](const unsigned int& value, UIntRegister&) {
            if (value != 0)
                throw Exception("Invalid index passed.", GC_ERR_INVALID_PARAMETER);
        },
        self);
    AddRegister(selector);
    auto streamId = Tools::MakeShared<Base::StringRegister>("Could not allocate stream id name register.",
                                                            StreamIdAddress, 256, Base::AccessRead);
    streamId->GetPreReadSignal().Connect([raw](Base::StringRegister& reg) { reg.SetValue(raw->StreamID()); }, self);
    AddRegister(streamId);
    AddRegister(Tools::MakeShared<UIntRegister>("Could not allocate inquiry register.", InquiryAddress, inquiry,
                                                Base::AccessRead));
    if (inquiry & 1)
        AddRegister(Tools::MakeShared<Base::StringRegister>("Could not allocate driver path register.",
                                                            DriverPathAddress, 1024, driverPath, Base::AccessRead));
    if (inquiry & 2)
        AddRegister(Tools::MakeShared<Base::StringRegister>("Could not allocate device location register.",
                                                            LocationAddress, 1024, location, Base::AccessRead));
    auto reset = Tools::MakeShared<UIntRegister>("Could not allocate device reset register.", ResetAddress, 0u,
                                                 Base::AccessReadWrite);
    reset->GetPreWriteSignal().Connect(
        [raw](const unsigned int&, UIntRegister&) {
            auto control = raw->driverDevice ? raw->driverDevice->GetControlChannel() : nullptr;
            if (!control)
                throw Exception("Could not get control channel.", GC_ERR_ERROR);
            QEL::System::SharedMutexGuard guard(control->GetMutex());
            control->ResetDevice();
        },
        self);
    AddRegister(reset);

    auto textRegister = [&](std::uint64_t address, const char* failure,
                            std::string (TransportLayer::ControlChannel::*query)()) {
        auto reg = Tools::MakeShared<StringInfoRegister>(failure, address, 16, Base::AccessRead);
        reg->GetPreReadSignal().Connect(
            [raw, query](StringInfoRegister& r) {
                auto control = raw->Control();
                QEL::System::SharedMutexGuard guard(control->GetMutex());
                std::string text = ((*control).*query)();
                text.resize(std::min<std::size_t>(text.size(), 15));
                r.SetTypedInfo(std::make_shared<Base::StringInfo>(text));
            },
            self);
        AddRegister(reg);
    };
    auto valueRegister = [&](std::uint64_t address, const char* failure,
                             const std::function<unsigned(TransportLayer::ControlChannel&)>& query) {
        auto reg = Tools::MakeShared<UIntRegister>(failure, address, Base::AccessRead);
        reg->GetPreReadSignal().Connect(
            [raw, query](UIntRegister& r) {
                auto control = raw->Control();
                QEL::System::SharedMutexGuard guard(control->GetMutex());
                r.SetValue(query(*control));
            },
            self);
        AddRegister(reg);
    };
    textRegister(DriverVersionAddress, "Could not allocate CSI-2 driver version register.",
                 &TransportLayer::ControlChannel::GetDriverVersion);
    textRegister(LibcsiVersionAddress, "Could not allocate libcsi version register.",
                 &TransportLayer::ControlChannel::GetLibcsiVersion);
    valueRegister(LaneCountAddress, "Could not allocate CSI-2 lane count register.",
                  [](TransportLayer::ControlChannel& c) { return unsigned{c.GetCurrentLaneCount()}; });
    valueRegister(ClockAddress, "Could not allocate CSI-2 clock frequency register.",
                  [](TransportLayer::ControlChannel& c) { return unsigned{c.GetClockFrequency()}; });
    textRegister(InterfaceVersionAddress, "Could not allocate CSI-2 driver interface version register.",
                 &TransportLayer::ControlChannel::GetDriverInterfaceVersion);
    valueRegister(PacketSizeAddress, "Could not allocate CSI-2 packet size register.",
                  [](TransportLayer::ControlChannel& c) {
                      std::uint32_t size = 0, count = 0;
                      c.GetPacketInfo(size, count);
                      return size;
                  });
    valueRegister(PacketCountAddress, "Could not allocate CSI-2 packet count register.",
                  [](TransportLayer::ControlChannel& c) {
                      std::uint32_t size = 0, count = 0;
                      c.GetPacketInfo(size, count);
                      return count;
                  });
}

void Device::RequireOpen() const
{
    if (!open)
        throw Exception("Device not open.", GC_ERR_INVALID_HANDLE);
}

std::shared_ptr<TransportLayer::ControlChannel> Device::Control() const
{
    auto control = driverDevice ? driverDevice->GetControlChannel() : nullptr;
    if (!control)
        throw Exception("Could not access control channel.", GC_ERR_ERROR);
    return control;
}

std::string Device::StreamID() const { return (boost::format("%1%_DS_0x%2$x") % deviceId % 0).str(); }

void Device::Close()
{
    RequireOpen();
    // The stream goes first, then the port to the camera.
    Tools::Swallow([&] {
        if (dataStream) {
            QEL::System::SharedMutexGuard guard(dataStream->GetMutex());
            if (dataStream->IsOpen())
                dataStream->Close();
        }
    });
    dataStream.reset();
    Tools::Swallow([&] {
        if (remoteDevice) {
            QEL::System::SharedMutexGuard guard(remoteDevice->GetMutex());
            if (remoteDevice->IsOpen())
                remoteDevice->Close();
        }
    });
    remoteDevice.reset();
    Tools::Swallow([&] { DeinitializePort(); });
    Tools::Swallow([&] { ClearPort(); });
    Tools::Swallow([&] { DeinitializeModule(); });
    Tools::Swallow([&] { ClearEvents(); });
    Tools::Swallow([&] { driverDevice.reset(); });
    open = false;
}

std::shared_ptr<Base::Port> Device::GetPort()
{
    RequireOpen();
    return remoteDevice;
}

std::uint32_t Device::GetNumDataStreams()
{
    RequireOpen();
    return driverDevice->HasStreamChannel() ? 1 : 0;
}

std::string Device::GetDataStreamID(std::uint32_t index)
{
    RequireOpen();
    if (!driverDevice->HasStreamChannel())
        throw Exception("Device has no support for streaming.", GC_ERR_NOT_AVAILABLE);
    if (index != 0)
        throw Exception("Invalid index passed.", GC_ERR_INVALID_INDEX);
    return StreamID();
}

std::shared_ptr<Base::DataStream> Device::OpenDataStream(const std::string& id)
{
    RequireOpen();
    if (!driverDevice->HasStreamChannel())
        throw Exception("Device has no support for streaming.", GC_ERR_NOT_AVAILABLE);
    if (!driverDevice->GetStreamChannel())
        throw Exception("Could not get stream channel.", GC_ERR_ERROR);
    if (id != StreamID())
        throw Exception("Invalid data stream ID passed.", GC_ERR_INVALID_ID);
    if (dataStream) {
        QEL::System::SharedMutexGuard guard(dataStream->GetMutex());
        if (dataStream->IsOpen())
            throw Exception("Data stream already open.", GC_ERR_RESOURCE_IN_USE);
    }
    auto created = DataStream::Create(settings, driverDevice->GetStreamChannel(), deviceId, 0, GetShared<Device>());
    if (!created)
        throw Exception("Could not allocate data stream.", GC_ERR_ERROR);
    dataStream = created;
    return dataStream;
}

Base::InfoPtr Device::GetInfo(DEVICE_INFO_CMD command)
{
    RequireOpen();
    auto text = [](const std::string& value) { return std::make_shared<Base::StringInfo>(value); };
    auto vendorAndModel = [&](bool vendor, bool model) {
        auto control = Control();
        QEL::System::SharedMutexGuard guard(control->GetMutex());
        std::string answer;
        if (vendor)
            answer = control->GetManufacturerName();
        if (vendor && model)
            answer += " ";
        if (model)
            answer += control->GetModelName();
        return answer;
    };
    Base::InfoPtr answer;
    Tools::Allocating("Could not allocate info.", [&] {
        switch (command) {
        case DEVICE_INFO_ID:
            answer = text(deviceId);
            break;
        case DEVICE_INFO_VENDOR:
            answer = text(vendorAndModel(true, false));
            break;
        case DEVICE_INFO_MODEL:
            answer = text(vendorAndModel(false, true));
            break;
        case DEVICE_INFO_TLTYPE:
            answer = text("Custom");
            break;
        case DEVICE_INFO_DISPLAYNAME:
            answer = text(vendorAndModel(true, true));
            break;
        case DEVICE_INFO_ACCESS_STATUS: {
            auto control = Control();
            answer = std::make_shared<Base::Int32Info>(control->IsReadOnly() ? DEVICE_ACCESS_STATUS_OPEN_READONLY
                                                                             : DEVICE_ACCESS_STATUS_OPEN_READWRITE);
            break;
        }
        case DEVICE_INFO_USER_DEFINED_NAME:
            if (!driverDevice->HasUserDefinedName())
                throw Exception("Device has no user defined name.", GC_ERR_NOT_AVAILABLE);
            answer = text(driverDevice->GetUserDefinedName());
            break;
        case DEVICE_INFO_SERIAL_NUMBER:
        case 1000:
            if (!driverDevice->HasSerialNumber())
                throw Exception("Device has no serial number.", GC_ERR_NOT_AVAILABLE);
            answer = text(driverDevice->GetSerialNumber());
            break;
        default:
            throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
    if (!answer)
        throw Base::Exception("Could not allocate info.", GC_ERR_ERROR);
    return answer;
}

std::size_t Device::GetInfoSize(DEVICE_INFO_CMD command, INFO_DATATYPE* type)
{
    return SizeOf(GetInfo(command), type, "Could not get device info.");
}

std::shared_ptr<Base::Interface> Device::GetParent()
{
    RequireOpen();
    auto locked = parent.lock();
    if (!locked)
        throw Exception("Parent already closed", GC_ERR_ERROR);
    return locked;
}

Base::InfoPtr Device::GetPortInfo(PORT_INFO_CMD command) const
{
    QEL::System::SharedMutexGuard guard(GetMutex());
    RequireOpen();
    auto self = const_cast<Device*>(this);
    switch (command) {
    case PORT_INFO_ID:
    case PORT_INFO_VENDOR:
    case PORT_INFO_MODEL:
    case PORT_INFO_TLTYPE: return self->GetInfo(static_cast<DEVICE_INFO_CMD>(command));
    case PORT_INFO_MODULE: return std::make_shared<Base::StringInfo>(GetTypeName());
    case PORT_INFO_LITTLE_ENDIAN: return std::make_shared<Base::Bool8Info>(true);
    case PORT_INFO_BIG_ENDIAN: return std::make_shared<Base::Bool8Info>(false);
    case PORT_INFO_ACCESS_READ: return std::make_shared<Base::Bool8Info>(true);
    case PORT_INFO_ACCESS_WRITE: {
        auto status = std::dynamic_pointer_cast<const Base::Int32Info>(self->GetInfo(DEVICE_INFO_ACCESS_STATUS));
        if (!status)
            throw Exception("Wrong info type", GC_ERR_ERROR);
        return std::make_shared<Base::Bool8Info>(status->GetValue() == DEVICE_ACCESS_STATUS_OPEN_READWRITE);
    }
    case PORT_INFO_ACCESS_NA:
    case PORT_INFO_ACCESS_NI: return std::make_shared<Base::Bool8Info>(false);
    case PORT_INFO_VERSION: return std::make_shared<Base::StringInfo>(settings->GetVersion().ToString('.'));
    case PORT_INFO_PORTNAME: return std::make_shared<Base::StringInfo>(GetPortName());
    default: return DeviceStack::GetPortInfo(command);
    }
}

} }
