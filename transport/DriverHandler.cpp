#include "transport/DriverHandler.h"

#include "base/BaseException.h"
#include "base/NamedThread.h"
#include "support/Allocation.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "support/Settings.h"
#include "support/Sha1.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSILibrary.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/format.hpp>

#include <chrono>
#include <locale>

namespace QEL { namespace CSI {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto GlobalLockTimeout = std::chrono::microseconds(4000000);

std::string Lower(const std::string& text) { return boost::algorithm::to_lower_copy(text, std::locale::classic()); }

template <class T>
const T& Required(const std::optional<T>& value, const char* missing)
{
    if (!value)
        throw Base::Exception(missing, GC_ERR_ERROR);
    return *value;
}

void Log(const std::string& text) { Tools::Logger::Log(text); }

}

// Options.

DriverHandler::Options DriverHandler::Options::FromSettings(const std::shared_ptr<const Settings>& shared,
                                                            const std::string& idPrefix)
{
    if (!shared)
        throw Base::Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
    const Settings& settings = *shared;
    Options options;
    options.settings = shared;
    options.idPrefix = idPrefix;
    options.enumerationEnabled = settings.GetEnableEnumeration();
    options.enumerationInterval = settings.HasEnumerationInterval() ? settings.GetEnumerationInterval() : 10000;
    options.extraReceiveTimeout = settings.GetExtraReceiveTimeout();
    options.sendTimeout = settings.GetSendTimeout();
    options.maxTransferSize = settings.HasMaxTransferSize() ? settings.GetMaxTransferSize() : 0;
    options.maxTransferCount = settings.HasMaxTransferCount() ? settings.GetMaxTransferCount() : 0;
    options.maxTransferCountEventChannel = settings.GetMaxTransferCountEventChannel();
    options.recordFrameStartFrameID = static_cast<std::uint32_t>(settings.GetRecordFrameStartFrameID());
    options.recordFrameStopFrameID = static_cast<std::uint32_t>(settings.GetRecordFrameStopFrameID());
    options.mediaLogEnabled = settings.IsMediaLoggingActive();
    options.mediaLogFileName = settings.GetMediaLogFileName();
    return options;
}

// DeviceData.

DriverHandler::DeviceData::DeviceData(const LibCSI::Device& device)
{
    const auto descriptor = device.GetDeviceDescriptor();
    if (!descriptor)
        throw Base::Exception("No device passed.", GC_ERR_INVALID_PARAMETER);
    const auto& info = *descriptor->GetInfo();
    auto optional = [&](LibCSI::InfoID id, const std::string& value) -> std::optional<std::string> {
        if (info.IsValid(id) && !value.empty())
            return value;
        return std::nullopt;
    };
    modelName = info.GetModelName();
    familyName = optional(INFO_FamilyName, info.GetFamilyName());
    manufacturerName = info.GetManufacturerName();
    guid = optional(INFO_DeviceGUID, info.GetDeviceGuid());
    serialNumber = optional(INFO_SerialNumber, info.GetSerialNumber());
    userDefinedName = optional(INFO_UserDefinedName, info.GetUserDefinedName());
    portID = optional(INFO_PortID, info.GetPortID());
    availability = info.GetAvailability();
    for (std::uint32_t number = 0; number < endpoints.size(); ++number)
        endpoints[number] = std::make_shared<LibCSI::EndpointDescriptor>(number);
}

const std::string& DriverHandler::DeviceData::GetFamilyName() const
{
    return Required(familyName, "No family name available.");
}
const std::string& DriverHandler::DeviceData::GetGuid() const { return Required(guid, "No GUID available."); }
const std::string& DriverHandler::DeviceData::GetSerialNumber() const
{
    return Required(serialNumber, "No serial number available.");
}
const std::string& DriverHandler::DeviceData::GetUserDefinedName() const
{
    return Required(userDefinedName, "No user defined name available.");
}
const std::string& DriverHandler::DeviceData::GetPortID() const { return Required(portID, "No port ID available."); }

std::shared_ptr<LibCSI::EndpointDescriptor> DriverHandler::DeviceData::GetEndpointDescriptor(EndpointKind kind) const
{
    return kind < endpoints.size() ? endpoints[kind] : nullptr;
}

// DeviceDetails.

DriverHandler::DeviceDetails::DeviceDetails(const std::string& key, const std::string& id, const DeviceData& data)
    : key(key), id(id), data(data), available(data.GetAvailability() != 0)
{
}

const std::string& DriverHandler::DeviceDetails::GetLocation() const
{
    if (!data.HasPortID())
        throw Base::Exception("No device location available.", GC_ERR_ERROR);
    return data.GetPortID();
}

// DeviceInfo.

DriverHandler::DeviceInfo::DeviceInfo(std::shared_ptr<DeviceDetails> details) : details(std::move(details))
{
    if (!this->details)
        throw Base::Exception("No device passed.", GC_ERR_INVALID_PARAMETER);
    available = this->details->IsAvailable();
}

int DriverHandler::DeviceInfo::Compare(const DeviceInfo& left, const DeviceInfo& right, bool withAvailability)
{
    if (int c = left.GetManufacturerName().compare(right.GetManufacturerName()))
        return c;
    if (int c = left.GetModelName().compare(right.GetModelName()))
        return c;
    if (withAvailability && left.IsAvailable() != right.IsAvailable())
        return left.IsAvailable() ? 1 : -1;
    if (left.HasSerialNumber() != right.HasSerialNumber())
        return left.HasSerialNumber() ? 1 : -1;
    if (left.HasSerialNumber())
        return left.GetSerialNumber().compare(right.GetSerialNumber());
    return 0;
}

// DeviceList.

DriverHandler::DeviceList::DeviceList(const std::map<std::string, std::shared_ptr<DeviceInfo>>& infosById)
{
    for (const auto& entry : infosById) {
        const std::string& id = entry.first;
        const DeviceDetails& details = *entry.second->GetDetails();
        infos.push_back(entry.second);
        // The first in ID order keeps a value that two devices share.
        lookups[0].emplace(id, id);
        if (details.HasGuid())
            lookups[1].emplace(details.GetGuid(), id);
        if (details.HasSerialNumber())
            lookups[2].emplace(details.GetSerialNumber(), id);
        lookups[3].emplace(Lower(details.GetKey()), id);
        if (details.HasLocation())
            lookups[4].emplace(details.GetLocation(), id);
        if (details.HasUserDefinedName())
            lookups[5].emplace(details.GetUserDefinedName(), id);
    }
}

std::string DriverHandler::DeviceList::GetId(std::uint32_t index) const
{
    if (index >= infos.size())
        throw Base::Exception("Invalid index passed.", GC_ERR_INVALID_INDEX);
    return infos[index]->GetDetails()->GetId();
}

bool DriverHandler::DeviceList::Find(const std::string& text, std::string& id) const
{
    for (std::size_t map = 0; map < lookups.size(); ++map) {
        auto found = lookups[map].find(map == 3 ? Lower(text) : text);
        if (found != lookups[map].end()) {
            id = found->second;
            return true;
        }
    }
    return false;
}

std::shared_ptr<TransportLayer::DeviceInfo> DriverHandler::DeviceList::GetInfo(const std::string& id) const
{
    auto found = lookups[0].find(id);
    if (found == lookups[0].end())
        throw Base::Exception("Invalid ID passed.", GC_ERR_INVALID_ID);
    for (const auto& info : infos)
        if (info->GetDetails()->GetId() == id)
            return info;
    throw Base::Exception("Invalid ID passed.", GC_ERR_INVALID_ID);
}

// DriverHandler.

std::shared_ptr<DriverHandler> DriverHandler::Create(const Options& options)
{
    auto handler = Tools::MakeShared<DriverHandler>("Could not allocate driver handler.", options);
    return handler;
}

DriverHandler::DriverHandler(const Options& options) : options(options)
{
    if (options.maxTransferCountEventChannel == 0)
        throw Base::Exception("Invalid maximum transfer count for event channel passed.", GC_ERR_INVALID_PARAMETER);
    Tools::Allocating("Could not allocate global mutex.", [&] {
        threadState = std::make_shared<ThreadState>();
        globalMutex = std::make_shared<System::Mutex>();
        deviceListMutex = std::make_shared<System::Mutex>();
    });
    library = LibCSI::Library::Create(options.mediaLogEnabled, options.mediaLogFileName);
    if (!library)
        throw Base::Exception("Could not allocate LibCSI library.", GC_ERR_ERROR);
    // The library's discovery thread may call in at any time from here on; `this` is
    // complete for what OnDeviceDiscovery touches, and the connection goes before the members.
    library->GetDiscoverySignal().Connect(
        [this](const char* portID, unsigned char available) { OnDeviceDiscovery(portID, available); });
    Enumerate();
    {
        System::MutexGuard guard(&threadState->mutex);
        threadState->state = 1;
    }
    enumerationThread = Base::StartNamedThread("tl-enumeration", [this] { EnumerationThread(); });
}

DriverHandler::~DriverHandler()
{
    {
        System::MutexGuard guard(&threadState->mutex);
        if (threadState->state != 0) {
            threadState->state = 2;
            threadState->condition.Broadcast();
            while (threadState->state != 0)
                threadState->condition.Wait(threadState->mutex);
        }
    }
    if (enumerationThread.joinable())
        enumerationThread.join();
    if (library)
        library->GetDiscoverySignal().DisconnectAll();
    library.reset();
}

void DriverHandler::EnumerationThread()
{
    ThreadState& sync = *threadState;
    auto next = Clock::now();
    System::MutexGuard guard(&sync.mutex);
    while (sync.state == 1) {
        const auto now = Clock::now();
        if (now < next && !sync.trigger) {
            sync.condition.TimedWait(sync.mutex, next);
            continue;
        }
        sync.trigger = false;
        // Without enumeration only a trigger wakes the thread.
        next = options.enumerationEnabled ? now + std::chrono::milliseconds(options.enumerationInterval)
                                          : now + std::chrono::hours(24 * 365 * 100);
        guard.Release();
        Enumerate();
        guard.Lock(&sync.mutex);
    }
    sync.state = 0;
    sync.condition.Broadcast();
}

std::string DriverHandler::ChooseId(const DeviceData& data, const std::string& lowerKey,
                                    const std::map<std::string, std::shared_ptr<DeviceDetails>>& byId) const
{
    if (data.HasGuid()) {
        std::string candidate = options.idPrefix + data.GetGuid();
        if (!byId.count(candidate))
            return candidate;
    }
    std::string hashed = options.idPrefix + Tools::Sha1HexUpper(lowerKey);
    if (!byId.count(hashed))
        return hashed;
    for (unsigned n = 0;; ++n) {
        std::string candidate = hashed + "_" + std::to_string(n);
        if (!byId.count(candidate))
            return candidate;
    }
}

void DriverHandler::Enumerate()
{
    std::vector<Change> changes;
    try {
        System::MutexGuard global;
        if (!global.TimedLock(globalMutex.get(), Clock::now() + GlobalLockTimeout))
            return;
        auto list = library->GetDeviceList(0xDEADBEEF);
        if (!list)
            throw Base::Exception("Could not get device list.", GC_ERR_ERROR);
        std::map<std::string, std::shared_ptr<DeviceDetails>> newByKey, newById;
        std::map<std::string, std::string> unknown;
        for (std::int32_t index = 0; index < list->GetCount(); ++index) {
            const std::string& key = list->GetKey(index);
            const std::string lowerKey = Lower(key);
            auto known = detailsByKey.find(lowerKey);
            if (known != detailsByKey.end() && known->second) {
                newByKey[lowerKey] = known->second;
                newById[known->second->GetId()] = known->second;
            } else {
                unknown[lowerKey] = key;
            }
        }
        for (const auto& entry : unknown) {
            const std::string& lowerKey = entry.first;
            try {
                auto device = library->CreateDevice(entry.second);
                if (!device)
                    throw Base::Exception("Could not open device.", GC_ERR_ERROR);
                const DeviceData data(*device);
                const std::string id = ChooseId(data, lowerKey, newById);
                auto details = std::make_shared<DeviceDetails>(entry.second, id, data);
                newById[id] = details;
                newByKey[lowerKey] = details;
            } catch (const System::Exception& e) {
                Log((boost::format("Device enumeration error: %1%") % e.GetMessage()).str());
                newByKey[lowerKey] = nullptr;
            } catch (...) {
                Log("Unknown device enumeration error.");
                newByKey[lowerKey] = nullptr;
            }
        }
        Infos newInfos;
        for (const auto& entry : newById)
            newInfos[entry.first] = std::make_shared<DeviceInfo>(entry.second);
        System::MutexGuard listGuard(deviceListMutex.get());
        CollectChanges(infosById, newInfos, changes);
        detailsByKey = std::move(newByKey);
        detailsById = std::move(newById);
        infosById = std::move(newInfos);
    } catch (const System::Exception& e) {
        Log(e.GetMessage());
    } catch (...) {
        Log("An unknown exception occured during device enumeration.");
    }
    ++enumerationRuns;
    for (const Change& change : changes)
        deviceChangeSignal(change.id, change.changed, change.state);
}

void DriverHandler::CollectChanges(const Infos& before, const Infos& after, std::vector<Change>& changes)
{
    auto vanished = [&](const std::string& id, const DeviceInfo& info) {
        changes.push_back({id, info.IsAvailable() ? 3u : 1u, 0u});
    };
    auto appeared = [&](const std::string& id, const DeviceInfo& info) {
        const unsigned bits = info.IsAvailable() ? 3u : 1u;
        changes.push_back({id, bits, bits});
    };
    auto old = before.begin();
    auto now = after.begin();
    while (old != before.end() || now != after.end()) {
        if (now == after.end() || (old != before.end() && old->first < now->first)) {
            vanished(old->first, *old->second);
            ++old;
        } else if (old == before.end() || now->first < old->first) {
            appeared(now->first, *now->second);
            ++now;
        } else {
            if (DeviceInfo::Compare(*old->second, *now->second, false) != 0) {
                vanished(old->first, *old->second);
                appeared(now->first, *now->second);
            } else if (old->second->IsAvailable() != now->second->IsAvailable()) {
                changes.push_back({now->first, 2u, now->second->IsAvailable() ? 3u : 1u});
            }
            ++old;
            ++now;
        }
    }
}

void DriverHandler::OnDeviceDiscovery(const char* portID, unsigned char available)
{
    if (!portID)
        return;
    System::MutexGuard global;
    if (!global.TimedLock(globalMutex.get(), Clock::now() + GlobalLockTimeout))
        return;
    std::shared_ptr<DeviceDetails> details;
    for (const auto& entry : detailsById)
        if (entry.second && entry.second->HasLocation() && entry.second->GetLocation() == portID)
            details = entry.second;
    if (!details)
        return;
    Log((boost::format("OnDeviceDiscovery: Device '%1%' new availability: %2%") % details->GetId() %
         static_cast<unsigned>(available))
            .str());
    details->SetAvailable(available != 0);
    System::MutexGuard state;
    if (!state.TimedLock(&threadState->mutex, Clock::now() + GlobalLockTimeout))
        return;
    if (threadState->state == 1 && !threadState->trigger) {
        threadState->trigger = true;
        threadState->condition.Broadcast();
    }
}

std::shared_ptr<TransportLayer::DeviceList> DriverHandler::GetDeviceList(bool* changed)
{
    System::MutexGuard guard(deviceListMutex.get());
    auto list = std::make_shared<DeviceList>(infosById);
    if (changed) {
        bool differ = infosById.size() != lastInfosById.size();
        for (auto now = infosById.begin(), last = lastInfosById.begin(); !differ && now != infosById.end();
             ++now, ++last)
            differ = now->first != last->first || DeviceInfo::Compare(*now->second, *last->second, true) != 0;
        *changed = differ;
        lastInfosById = infosById;
    }
    return list;
}

} }
