#pragma once

#include "support/BasicLockable.h"
#include "support/Condition.h"
#include "support/Mutex.h"
#include "support/TrackableObject.h"
#include "transport/Descriptors.h"
#include "transport/TransportLayerRoles.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace QEL {
namespace LibCSI { class Device; class Library; }
namespace TransportLayer { class ControlChannel; class EventChannel; class StreamChannel; }
class Settings;
namespace CSI {

using DriverHandlerRole = Tools::TrackableObject<Tools::BasicLockable<TransportLayer::DriverHandler>>;

// The list of cameras: every camera the library reports gets a stable device
// ID; comings, goings and availability changes are signalled.
class DriverHandler : public DriverHandlerRole {
public:
    struct Options {
        std::string idPrefix = "DEV_";
        bool enumerationEnabled = true;
        std::uint32_t enumerationInterval = 10000; // milliseconds
        std::uint32_t extraReceiveTimeout = 0;
        std::uint32_t sendTimeout = 0;
        std::uint32_t maxTransferSize = 0;  // 0: not set
        std::uint32_t maxTransferCount = 0; // 0: not set
        std::uint32_t maxTransferCountEventChannel = 1;
        std::uint32_t recordFrameStartFrameID = 0xFFFFFFFF;
        std::uint32_t recordFrameStopFrameID = 0xFFFFFFFF;
        bool mediaLogEnabled = false;
        std::string mediaLogFileName;
        // Lane counts, clocks and ASIC patches of the cameras' ports.
        std::shared_ptr<const Settings> settings;

        static Options FromSettings(const std::shared_ptr<const Settings>& settings, const std::string& idPrefix);
    };

    // What one look at a camera yields.
    class DeviceData : public virtual System::Object {
    public:
        explicit DeviceData(const LibCSI::Device& device);

        const std::string& GetModelName() const { return modelName; }
        const std::string& GetManufacturerName() const { return manufacturerName; }
        std::uint8_t GetAvailability() const { return availability; }
        bool HasFamilyName() const { return familyName.has_value(); }
        const std::string& GetFamilyName() const;
        bool HasGuid() const { return guid.has_value(); }
        const std::string& GetGuid() const;
        bool HasSerialNumber() const { return serialNumber.has_value(); }
        const std::string& GetSerialNumber() const;
        bool HasUserDefinedName() const { return userDefinedName.has_value(); }
        const std::string& GetUserDefinedName() const;
        bool HasPortID() const { return portID.has_value(); }
        const std::string& GetPortID() const;

        enum EndpointKind : std::size_t { ControlIn = 0, ControlOut = 1, Event = 2, Stream = 3 };
        // Empty when the camera has no such endpoint.
        std::shared_ptr<LibCSI::EndpointDescriptor> GetEndpointDescriptor(EndpointKind kind) const;

    private:
        std::string modelName;
        std::optional<std::string> familyName;
        std::string manufacturerName;
        std::optional<std::string> guid;
        std::optional<std::string> serialNumber;
        std::optional<std::string> userDefinedName;
        std::optional<std::string> portID;
        std::uint8_t availability = 0;
        // Control in, control out, event, stream, and one more: they say only that the endpoint exists.
        std::array<std::shared_ptr<LibCSI::EndpointDescriptor>, 5> endpoints;
    };

    // The lasting record of one camera: what the first look at it gave, under its key and ID.
    class DeviceDetails : public virtual System::Object {
    public:
        DeviceDetails(const std::string& key, const std::string& id, const DeviceData& data);

        const std::string& GetKey() const { return key; }
        const std::string& GetId() const { return id; }
        const std::string& GetModelName() const { return data.GetModelName(); }
        const std::string& GetManufacturerName() const { return data.GetManufacturerName(); }
        bool HasFamilyName() const { return data.HasFamilyName(); }
        const std::string& GetFamilyName() const { return data.GetFamilyName(); }
        bool HasGuid() const { return data.HasGuid(); }
        const std::string& GetGuid() const { return data.GetGuid(); }
        bool HasSerialNumber() const { return data.HasSerialNumber(); }
        const std::string& GetSerialNumber() const { return data.GetSerialNumber(); }
        bool HasLocation() const { return data.HasPortID(); }
        const std::string& GetLocation() const;
        bool HasUserDefinedName() const { return data.HasUserDefinedName(); }
        const std::string& GetUserDefinedName() const { return data.GetUserDefinedName(); }
        bool IsAvailable() const { return available; }
        void SetAvailable(bool value) { available = value; }
        const DeviceData& GetData() const { return data; }

    private:
        std::string key, id;
        DeviceData data;
        bool available = true;
    };

    // Stands for one open camera under the global mutex: made when it opens,
    // gone when the camera is closed. A second open of a camera is refused
    // above (the interface) and below (libcsi), not here.
    class DeviceGuard : public virtual System::Object {
    public:
        DeviceGuard(const std::shared_ptr<QEL::System::Mutex>& globalMutex, const std::shared_ptr<DeviceDetails>& details);
        ~DeviceGuard() override;

    private:
        std::shared_ptr<QEL::System::Mutex> globalMutex;
        std::shared_ptr<DeviceDetails> details;
        std::shared_ptr<QEL::System::Mutex> openMutex;
    };

    // An opened camera: its channels and what identifies it.
    class Device : public virtual System::Object {
    public:
        Device(const std::shared_ptr<LibCSI::Device>& camera,
               const std::shared_ptr<TransportLayer::ControlChannel>& controlChannel,
               const std::shared_ptr<TransportLayer::EventChannel>& eventChannel,
               const std::shared_ptr<TransportLayer::StreamChannel>& streamChannel, const DeviceDetails& details);
        ~Device() override;

        virtual std::shared_ptr<TransportLayer::ControlChannel> GetControlChannel() const { return controlChannel; }
        virtual bool HasEventChannel() const { return eventChannel != nullptr; }
        virtual std::shared_ptr<TransportLayer::EventChannel> GetEventChannel() const;
        virtual bool HasStreamChannel() const { return streamChannel != nullptr; }
        virtual std::shared_ptr<TransportLayer::StreamChannel> GetStreamChannel() const;
        virtual bool HasDeviceKey() const { return true; }
        virtual std::string GetDeviceKey() const { return key; }
        virtual bool HasDeviceLocation() const { return location.has_value(); }
        virtual std::string GetDeviceLocation() const;
        virtual bool HasSerialNumber() const { return serialNumber.has_value(); }
        virtual std::string GetSerialNumber() const;
        virtual bool HasUserDefinedName() const { return userDefinedName.has_value(); }
        virtual std::string GetUserDefinedName() const;

    private:
        // Declared first, so that it goes last: the channels need the open camera.
        std::shared_ptr<LibCSI::Device> camera;
        std::shared_ptr<TransportLayer::ControlChannel> controlChannel;
        std::shared_ptr<TransportLayer::EventChannel> eventChannel;
        std::shared_ptr<TransportLayer::StreamChannel> streamChannel;
        std::string key;
        std::optional<std::string> location, serialNumber, userDefinedName;
    };

    class DeviceInfo : public TransportLayer::DeviceInfo {
    public:
        explicit DeviceInfo(std::shared_ptr<DeviceDetails> details);

        std::string GetModelName() const override { return details->GetModelName(); }
        bool HasFamilyName() const override { return details->HasFamilyName(); }
        std::string GetFamilyName() const override { return details->GetFamilyName(); }
        std::string GetManufacturerName() const override { return details->GetManufacturerName(); }
        bool HasSerialNumber() const override { return details->HasSerialNumber(); }
        std::string GetSerialNumber() const override { return details->GetSerialNumber(); }
        bool HasUserDefinedName() const override { return details->HasUserDefinedName(); }
        std::string GetUserDefinedName() const override { return details->GetUserDefinedName(); }
        bool IsAvailable() const override { return available; }
        const std::shared_ptr<DeviceDetails>& GetDetails() const { return details; }

        // The first difference: manufacturer, model, availability when asked, serial number; 0 when equal.
        static int Compare(const DeviceInfo& left, const DeviceInfo& right, bool withAvailability);

    private:
        std::shared_ptr<DeviceDetails> details;
        bool available;
    };

    // A frozen copy of the current list.
    class DeviceList : public TransportLayer::DeviceList {
    public:
        explicit DeviceList(const std::map<std::string, std::shared_ptr<DeviceInfo>>& infosById);

        std::uint32_t GetCount() const override { return static_cast<std::uint32_t>(infos.size()); }
        std::string GetId(std::uint32_t index) const override;
        bool Find(const std::string& text, std::string& id) const override;
        std::shared_ptr<TransportLayer::DeviceInfo> GetInfo(const std::string& id) const override;

    private:
        std::vector<std::shared_ptr<DeviceInfo>> infos;
        // By ID, GUID, serial number, lower-case key, location, user-defined name.
        std::array<std::map<std::string, std::string>, 6> lookups;
    };

    static std::shared_ptr<DriverHandler> Create(const Options& options);
    explicit DriverHandler(const Options& options);
    ~DriverHandler() override;

    std::shared_ptr<TransportLayer::DeviceList> GetDeviceList(bool* changed) override;
    DeviceChangeSignal& GetDeviceChangeSignal() override { return deviceChangeSignal; }
    void OnDeviceDiscovery(const char* portID, unsigned char available);
    // How many times the device list was built, its first build included: a
    // run can be waited for, and its absence observed, rather than guessed.
    std::uint64_t GetEnumerationRuns() const { return enumerationRuns.load(); }

    // Builds the channels of the camera with `id`; a read-only camera gets
    // neither event nor stream channel.
    std::shared_ptr<Device> OpenDevice(const std::string& id, const std::shared_ptr<System::Object>& parent,
                                       bool readOnly);

    const Options& GetOptions() const { return options; }
    const std::shared_ptr<LibCSI::Library>& GetLibrary() const { return library; }
    std::shared_ptr<QEL::System::Mutex> GetGlobalMutex() const { return globalMutex; }

private:
    struct ThreadState {
        QEL::System::Mutex mutex;
        QEL::System::Condition condition;
        std::uint32_t state = 0; // 0 stopped, 1 running, 2 stop requested
        bool trigger = false;
    };
    struct Change {
        std::string id;
        unsigned changed, state;
    };
    using Infos = std::map<std::string, std::shared_ptr<DeviceInfo>>;

    void EnumerationThread();
    void Enumerate();
    std::string ChooseId(const DeviceData& data, const std::string& lowerKey,
                         const std::map<std::string, std::shared_ptr<DeviceDetails>>& byId) const;
    static void CollectChanges(const Infos& before, const Infos& after, std::vector<Change>& changes);

    std::shared_ptr<ThreadState> threadState;
    std::shared_ptr<LibCSI::Library> library;
    std::shared_ptr<QEL::System::Mutex> globalMutex;
    DeviceChangeSignal deviceChangeSignal;
    const Options options;
    std::map<std::string, std::shared_ptr<DeviceDetails>> detailsByKey;
    std::map<std::string, std::shared_ptr<DeviceDetails>> detailsById;
    std::shared_ptr<QEL::System::Mutex> deviceListMutex;
    Infos infosById;
    Infos lastInfosById;
    std::atomic<std::uint64_t> enumerationRuns{0};
    std::thread enumerationThread;
};

} }
