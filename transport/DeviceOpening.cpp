// Opening a camera: the guard that stands for it, its channels, and what the
// modules above get of it.
#include "base/BaseException.h"
#include "support/MutexGuard.h"
#include "transport/CCIControlChannel.h"
#include "transport/DriverHandler.h"
#include "transport/Endpoint.h"
#include "transport/EndpointHandler.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSILibrary.h"
#include "transport/StreamChannel.h"

#include <algorithm>
#include <chrono>
#include <new>

namespace QEL { namespace CSI {

using Base::Exception;

namespace {

constexpr auto GlobalLockTimeout = std::chrono::microseconds(4000000);
constexpr std::uint32_t DefaultTransferSize = 0x40000;
constexpr std::uint32_t DefaultTransferCount = 64;

std::string Required(const std::optional<std::string>& value, const char* missing)
{
    if (!value)
        throw Exception(missing, GC_ERR_ERROR);
    return *value;
}

template <class T, class Make>
std::shared_ptr<T> Made(const char* failure, Make make)
{
    std::shared_ptr<T> made;
    try {
        made = make();
    } catch (const std::bad_alloc&) {
        made.reset();
    }
    if (!made)
        throw Exception(failure, GC_ERR_ERROR);
    return made;
}

}

// DeviceGuard.

DriverHandler::DeviceGuard::DeviceGuard(const std::shared_ptr<QEL::System::Mutex>& global,
                                        const std::shared_ptr<DeviceDetails>& deviceDetails)
    : globalMutex(global), details(deviceDetails)
{
    if (!globalMutex)
        throw Exception("No global mutex passed.", GC_ERR_INVALID_PARAMETER);
    if (!details)
        throw Exception("No device details passed.", GC_ERR_INVALID_PARAMETER);
    System::MutexGuard guard;
    if (!guard.TimedLock(globalMutex.get(), System::Clock::now() + GlobalLockTimeout))
        throw Exception("Could not lock global mutex.", GC_ERR_ERROR);
    try {
        openMutex = std::make_shared<QEL::System::Mutex>();
    } catch (const std::bad_alloc&) {
        throw Exception("Device not available at the moment.", GC_ERR_RESOURCE_IN_USE);
    }
}

DriverHandler::DeviceGuard::~DeviceGuard()
{
    System::MutexGuard guard;
    if (guard.TimedLock(globalMutex.get(), System::Clock::now() + GlobalLockTimeout))
        openMutex.reset();
}

// Device.

DriverHandler::Device::Device(const std::shared_ptr<LibCSI::Device>& openCamera,
                              const std::shared_ptr<TransportLayer::ControlChannel>& control,
                              const std::shared_ptr<TransportLayer::EventChannel>& event,
                              const std::shared_ptr<TransportLayer::StreamChannel>& stream,
                              const DeviceDetails& details)
    : camera(openCamera), controlChannel(control), eventChannel(event), streamChannel(stream), key(details.GetKey())
{
    if (!controlChannel)
        throw Exception("No control channel passed.", GC_ERR_INVALID_PARAMETER);
    if (details.HasLocation())
        location = details.GetLocation();
    if (details.HasSerialNumber())
        serialNumber = details.GetSerialNumber();
    if (details.HasUserDefinedName())
        userDefinedName = details.GetUserDefinedName();
}

DriverHandler::Device::~Device()
{
    // The stream goes before the control channel that it speaks through.
    streamChannel.reset();
    eventChannel.reset();
    controlChannel.reset();
}

std::shared_ptr<TransportLayer::EventChannel> DriverHandler::Device::GetEventChannel() const
{
    if (!eventChannel)
        throw Exception("No event channel available.", GC_ERR_ERROR);
    return eventChannel;
}

std::shared_ptr<TransportLayer::StreamChannel> DriverHandler::Device::GetStreamChannel() const
{
    if (!streamChannel)
        throw Exception("No stream channel available.", GC_ERR_ERROR);
    return streamChannel;
}

std::string DriverHandler::Device::GetDeviceLocation() const
{
    return Required(location, "No device location available.");
}

std::string DriverHandler::Device::GetSerialNumber() const
{
    return Required(serialNumber, "No serial number available.");
}

std::string DriverHandler::Device::GetUserDefinedName() const
{
    return Required(userDefinedName, "No user defined name available.");
}

// Opening.

std::shared_ptr<DriverHandler::Device> DriverHandler::OpenDevice(const std::string& id,
                                                                 const std::shared_ptr<System::Object>& parent,
                                                                 bool readOnly)
{
    System::MutexGuard global;
    if (!global.TimedLock(globalMutex.get(), System::Clock::now() + GlobalLockTimeout))
        throw Exception("Could not access device list.", GC_ERR_ERROR);
    const auto found = detailsById.find(id);
    if (found == detailsById.end() || !found->second)
        throw Exception("Could not find device with given ID.", GC_ERR_INVALID_ID);
    const std::shared_ptr<DeviceDetails> details = found->second;

    auto guard = std::make_shared<DeviceGuard>(globalMutex, details);
    std::shared_ptr<LibCSI::Device> camera = library->OpenDevice(details->GetKey(), guard);
    if (!camera)
        throw Exception("Could not open device.", GC_ERR_ERROR);
    guard.reset(); // the camera holds it now
    std::unique_ptr<DeviceData> data;
    try {
        data = std::make_unique<DeviceData>(*camera);
    } catch (...) {
        throw Exception("Cannot open unsupported CSI-2 device.", GC_ERR_ERROR);
    }
    if (!data->GetEndpointDescriptor(DeviceData::ControlIn) || !data->GetEndpointDescriptor(DeviceData::ControlOut))
        throw Exception("No control channel input endpoint available for this device.", GC_ERR_ERROR);
    const std::uint32_t transferCount = options.maxTransferCount ? options.maxTransferCount : DefaultTransferCount;
    // A set maximum is taken in whole packets of the camera's GenCP buffer.
    auto transferSize = [&](const std::shared_ptr<LibCSI::Endpoint>& endpoint) {
        if (options.maxTransferSize == 0)
            return DefaultTransferSize;
        const std::uint32_t packet = std::max<std::uint32_t>(1, endpoint->GetMaxPacketSize());
        const std::uint32_t size = std::max(options.maxTransferSize, packet);
        return size - size % packet;
    };
    auto openEndpoint = [&](std::uint32_t number, const char* failure) {
        std::shared_ptr<LibCSI::Endpoint> endpoint;
        try {
            endpoint = LibCSI::Endpoint::Open(camera, number);
        } catch (const System::Exception&) {
            endpoint.reset();
        }
        if (!endpoint)
            throw Exception(failure, GC_ERR_ERROR);
        return endpoint;
    };

    auto in = openEndpoint(LibCSI::CONTROL_CHANNEL_IN, "Could not open control channel input endpoint.");
    auto inHandler = Made<LibCSI::EndpointHandler>("Could not allocate control channel input endpoint handler.", [&] {
        return LibCSI::EndpointHandler::Create(in, transferCount, transferSize(in), LibCSI::CONTROL_CHANNEL_IN);
    });
    auto out = openEndpoint(LibCSI::CONTROL_CHANNEL, "Could not open control channel output endpoint.");
    auto outHandler = Made<LibCSI::EndpointHandler>("Could not allocate control channel input endpoint handler.", [&] {
        return LibCSI::EndpointHandler::Create(out, transferCount, transferSize(out), LibCSI::CONTROL_CHANNEL);
    });
    auto control = Made<TransportLayer::ControlChannel>("Could not allocate control channel.", [&] {
        return TransportLayer::ControlChannel::Create(inHandler, outHandler, options.settings,
                                                      options.extraReceiveTimeout, options.sendTimeout, readOnly);
    });
    (void)parent; // the modules above keep the device alive; nothing below needs it

    // Camera events are switched off in this transport (GetEventSupport), so no event channel is made.
    std::shared_ptr<TransportLayer::EventChannel> event;
    std::shared_ptr<TransportLayer::StreamChannel> stream;
    if (!readOnly && data->GetEndpointDescriptor(DeviceData::Stream) && control->GetCapabilitySBRM() &&
        control->GetStreamChannelCount() == 1) {
        auto endpoint = openEndpoint(LibCSI::ENDPOINT_MODE_SI, "Could not open stream channel endpoint.");
        auto handler = Made<LibCSI::EndpointHandler>("Could not allocate stream channel endpoint handler.", [&] {
            return LibCSI::EndpointHandler::Create(endpoint, transferCount, transferSize(endpoint),
                                                   LibCSI::ENDPOINT_MODE_SI);
        });
        stream = Made<TransportLayer::StreamChannel>("Could not allocate stream channel.", [&] {
            return TransportLayer::StreamChannel::Create(control, handler,
                                                         static_cast<std::int32_t>(options.recordFrameStartFrameID),
                                                         static_cast<std::int32_t>(options.recordFrameStopFrameID));
        });
    }
    return std::make_shared<Device>(camera, control, event, stream, *details);
}

} }
