#include "transport/LibCSIWrapper_Impl.h"

#include "base/BaseException.h"
#include "support/MutexGuard.h"
#include "transport/LibCSILibrary.h"

#include <boost/format.hpp>

#include <cstdio>
#include <cstring>
#include <vector>

namespace QEL { namespace LibCSI {

namespace {

struct OpenDeviceEntry {
    device_handle_t* handle = nullptr;
    int references = 0;
    bool resetOnClose = false;
};

// Process-wide, like libcsi itself: the cameras by index, and the open ones by GUID.
struct Tables {
    std::shared_ptr<System::Mutex> deviceMutex = std::make_shared<System::Mutex>();
    std::shared_ptr<System::Mutex> listMutex = std::make_shared<System::Mutex>();
    LibCSIWrapper_Impl::InfoTable infos;
    std::map<std::string, OpenDeviceEntry> openDevices;
};

// Never destroyed: libcsi's threads may still report while the process exits.
Tables& TheTables()
{
    static Tables* const tables = new Tables;
    return *tables;
}

// Runs one libcsi call; an exception out of it counts as `onException`.
template <class Function>
std::int32_t Call(const char* name, Function&& function, std::int32_t onException = -1)
{
    try {
        return function();
    } catch (...) {
        std::printf("%s raised exception\n", name);
        std::fflush(stdout);
        return onException;
    }
}

void LogFailure(const char* name, std::int32_t result)
{
    Library::MediaLogFormat("LibCSIWrapper_Impl call of %s failed. Result=%d", name, result);
}

// A call whose failure is logged in the common form.
template <class Function>
std::int32_t Logged(const char* name, Function&& function, std::int32_t onException = -1)
{
    const std::int32_t result = Call(name, std::forward<Function>(function), onException);
    if (result != 0)
        LogFailure(name, result);
    return result;
}

[[noreturn]] void Refuse(const char* format, const void* value, GC_ERROR code)
{
    throw Base::Exception((boost::format(format) % value).str(), code);
}

[[noreturn]] void RefuseResult(const char* format, std::int32_t result, GC_ERROR code)
{
    throw Base::Exception((boost::format(format) % result).str(), code);
}

std::string VersionText(std::uint32_t packed)
{
    return (boost::format("%1%.%2%.%3%") % (packed >> 16) % ((packed >> 8) & 0xFF) % (packed & 0xFF)).str();
}

}

LibCSIWrapper_Impl::LibCSIWrapper_Impl()
    : deviceMutex(TheTables().deviceMutex), listMutex(TheTables().listMutex)
{
}

LibCSIWrapper_Impl::~LibCSIWrapper_Impl()
{
    if (device)
        CloseDevice();
    if (initialised)
        Deinit();
}

std::int32_t LibCSIWrapper_Impl::Init()
{
    std::int32_t result = Call("libcsi_init", [] { return libcsi_init(); });
    if (result != 0)
        Library::MediaLogFormat("LibCSI init failed. Result=%d", result);
    // Only a library that started is ended again.
    const bool started = result == 0;
    result = Call("libcsi_register_report_callback",
                  [this] { return libcsi_register_report_callback(&LibCSIWrapper_Impl::OnReport, this); });
    if (result != 0)
        Library::MediaLogFormat("Register report callback failed. Result=%d", result);
    result = Call("libcsi_register_discovery_callback",
                  [this] { return libcsi_register_discovery_callback(&LibCSIWrapper_Impl::OnDiscovery, this); });
    if (result != 0)
        Library::MediaLogFormat("Register discovery callback failed, result=%d", result);
    result = Call("libcsi_update_device_list", [] { return libcsi_update_device_list(); });
    if (result != 0)
        Library::MediaLogFormat("LibCSI update device list failed. Result=%d", result);
    initialised = started;
    return result;
}

std::int32_t LibCSIWrapper_Impl::Deinit()
{
    initialised = false;
    std::int32_t result = Call("libcsi_deregister_discovery_callback", [] { return libcsi_deregister_discovery_callback(); });
    if (result != 0)
        Library::MediaLogFormat("Deregister discovery callback failed. Result=%d", result);
    result = Call("libcsi_deregister_report_callback", [] { return libcsi_deregister_report_callback(); });
    if (result != 0)
        Library::MediaLogFormat("Deregister report callback failed. Result=%d", result);
    result = Call("libcsi_deinit", [] { return libcsi_deinit(); });
    if (result != 0)
        Library::MediaLogFormat("LibCSI deinit failed. Result=%d", result);
    // Indices and handles mean nothing to the next libcsi_init.
    {
        System::SharedMutexGuard guard(listMutex);
        TheTables().infos.clear();
    }
    System::SharedMutexGuard guard(deviceMutex);
    TheTables().openDevices.clear();
    return result;
}

void LibCSIWrapper_Impl::GetDeviceList(InfoTable& out)
{
    System::SharedMutexGuard guard(listMutex);
    std::uint32_t count = 0;
    std::int32_t result;
    try {
        result = libcsi_get_device_count(&count);
    } catch (...) {
        std::printf("libcsi_get_device_count raised LibraryInitexception\n");
        std::fflush(stdout);
        result = -1;
    }
    if (result != 0) {
        LogFailure("libcsi_get_device_count", result);
        count = 0;
    }
    InfoTable& infos = TheTables().infos;
    for (std::uint32_t index = 0; index < count; ++index) {
        std::int32_t type = 0;
        std::uint64_t size = 0;
        std::string guid;
        if (GetInfo(index, INFO_DeviceGUID, &type, nullptr, &size, "libcsi_get_info 4") == 0) {
            std::vector<char> text(size + 1, 0);
            if (GetInfo(index, INFO_DeviceGUID, &type, text.data(), &size, "libcsi_get_info 4") == 0)
                guid = text.data();
        }
        auto known = infos.find(static_cast<std::int32_t>(index));
        if (known != infos.end() && known->second && known->second->GetDeviceGuid() == guid)
            continue;
        auto info = std::make_shared<CSIInfo>(shared_from_this(), static_cast<std::int32_t>(index));
        info->Init();
        infos[static_cast<std::int32_t>(index)] = info;
    }
    infos.erase(infos.lower_bound(static_cast<std::int32_t>(count)), infos.end());
    out = infos;
}

bool LibCSIWrapper_Impl::GetDeviceInfo(const std::string& guid, std::shared_ptr<CSIInfo>& info)
{
    System::SharedMutexGuard guard(listMutex);
    InfoTable table = TheTables().infos;
    if (table.empty())
        GetDeviceList(table);
    for (const auto& entry : table)
        if (entry.second && entry.second->GetDeviceGuid() == guid) {
            info = entry.second;
            return true;
        }
    return false;
}

std::int32_t LibCSIWrapper_Impl::GetInfo(std::uint32_t index, std::int32_t id, std::int32_t* type, void* data,
                                         std::uint64_t* size, const std::string& callName)
{
    return Call(callName.c_str(), [&] { return libcsi_get_info(index, id, type, data, size); });
}

std::int32_t LibCSIWrapper_Impl::OpenDevice(std::int32_t index, const std::string& guid)
{
    System::SharedMutexGuard guard(deviceMutex);
    if (device)
        return -1;
    auto& openDevices = TheTables().openDevices;
    auto open = openDevices.find(guid);
    if (open == openDevices.end()) {
        device_handle_t* handle = nullptr;
        const std::int32_t result =
            Logged("libcsi_open_device", [&] { return libcsi_open_device(static_cast<std::uint32_t>(index), &handle); });
        if (result != 0)
            return result;
        open = openDevices.emplace(guid, OpenDeviceEntry{handle, 0, false}).first;
    }
    ++open->second.references;
    device = open->second.handle;
    deviceGuid = guid;
    return 0;
}

std::int32_t LibCSIWrapper_Impl::StartChannel(const std::string& guid, std::int32_t channel,
                                              lib_channel_transfer* transfer)
{
    std::shared_ptr<CSIInfo> info;
    if (!GetDeviceInfo(guid, info))
        return -1;
    System::SharedMutexGuard guard(deviceMutex);
    if (!device || deviceGuid != guid) {
        if (const std::int32_t result = OpenDevice(info->GetDeviceIndex(), guid))
            return result;
    }
    switch (channel) {
    case CONTROL_CHANNEL:
        Library::MediaLogFormat("Start channel deviceNo = %d, CONTROL_CHANNEL.", info->GetDeviceIndex());
        controlChannelStarted = true;
        Library::MediaLog("StartReceiveData CONTROL_CHANNEL_OUT OK.");
        break;
    case ENDPOINT_MODE_SI:
        deviceNumber = info->GetDeviceIndex();
        streamTransfer = transfer;
        break;
    case EVENT_CHANNEL:
        Library::MediaLogFormat("StartDMA channel cardNo = %d, EVENT_CHANNEL.", info->GetDeviceIndex());
        break;
    case DEBUG_CHANNEL:
    case DEBUG_CHANNEL_2:
        Library::MediaLogFormat("StartDMA channel cardNo = %d, DEBUG_CHANNEL.", info->GetDeviceIndex());
        break;
    default:
        break;
    }
    return 0;
}

void LibCSIWrapper_Impl::StopChannel(std::int32_t channel)
{
    System::SharedMutexGuard guard(deviceMutex);
    switch (channel) {
    case CONTROL_CHANNEL:
        Library::MediaLog("Stop CONTROL_CHANNEL_OUT.");
        controlChannelStarted = false;
        break;
    case EVENT_CHANNEL:
        Library::MediaLog("Stop channel EVENT_CHANNEL OK.");
        break;
    case DEBUG_CHANNEL:
    case DEBUG_CHANNEL_2:
        Library::MediaLog("Stop channel DEBUG_CHANNEL OK.");
        break;
    default:
        break;
    }
}

void LibCSIWrapper_Impl::CloseDevice()
{
    System::SharedMutexGuard guard(deviceMutex);
    auto& openDevices = TheTables().openDevices;
    auto open = openDevices.find(deviceGuid);
    if (open != openDevices.end() && --open->second.references <= 0) {
        device_handle_t* handle = open->second.handle;
        const bool reset = open->second.resetOnClose;
        openDevices.erase(open);
        std::int32_t result = 0;
        if (reset && (result = Call("libcsi_reset_device", [&] { return libcsi_reset_device(handle); })) != 0)
            Library::MediaLogFormat("LibCSIWrapper_Impl call of libcsi_reset_device failed. Result=%d", result);
        if ((result = Call("libcsi_close_device", [&] { return libcsi_close_device(handle); })) != 0)
            Library::MediaLogFormat("LibCSIWrapper_Impl call of libcsi_close_device failed. Result=%d", result);
    }
    device = nullptr;
    deviceGuid.clear();
    controlChannelStarted = streamStarted = false;
    streamTransfer = nullptr;
}

void LibCSIWrapper_Impl::SetResetOnClose(const std::string& guid, bool reset)
{
    System::SharedMutexGuard guard(deviceMutex);
    auto open = TheTables().openDevices.find(guid);
    if (open != TheTables().openDevices.end())
        open->second.resetOnClose = reset;
}

std::int32_t LibCSIWrapper_Impl::ResetDevice()
{
    device_handle_t* handle = RequireDevice("ResetDevice");
    return Logged("libcsi_reset_device", [&] { return libcsi_reset_device(handle); });
}

bool LibCSIWrapper_Impl::IsOpen() const
{
    System::SharedMutexGuard guard(deviceMutex);
    return device != nullptr;
}

void LibCSIWrapper_Impl::SendControlCommand(ControlTransfer& transfer)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while sending control command. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    if (!transfer.buffer)
        Refuse("Error while sending control command. Invalid buffer pointer %1%", transfer.buffer,
               GC_ERR_INVALID_PARAMETER);
    const std::int32_t result = Logged(
        "libcsi_write_gencp", [&] { return libcsi_write_gencp(current, transfer.buffer, transfer.size, 1000); });
    if (result != 0) {
        transfer.status = TransferFailed;
        return;
    }
    Library::MediaLogDump("SendControlCommand:\n", transfer.buffer, transfer.size);
    transfer.bytesDone = transfer.size;
    transfer.bytesLeft = 0;
    transfer.status = 0;
}

void LibCSIWrapper_Impl::ReadControlAnswer(ControlTransfer& transfer)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while reading control answer. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    if (!transfer.buffer)
        Refuse("Error while reading control answer. Invalid buffer pointer %1%", transfer.buffer,
               GC_ERR_INVALID_PARAMETER);
    std::uint64_t size = transfer.size;
    const std::int32_t result =
        Logged("libcsi_read_gencp", [&] { return libcsi_read_gencp(current, transfer.buffer, &size, 1000); });
    transfer.bytesDone = static_cast<std::uint32_t>(size);
    if (result != 0) {
        transfer.status = TransferFailed;
        return;
    }
    Library::MediaLogDump("ReadControlAnswer:\n", transfer.buffer, transfer.bytesDone);
    transfer.bytesLeft = transfer.size > transfer.bytesDone ? transfer.size - transfer.bytesDone : 0;
    transfer.status = 0;
}

device_handle_t* LibCSIWrapper_Impl::RequireDevice(const char* operation)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        throw Base::Exception((boost::format("Invalid device handle passed to %1%.") % operation).str(),
                              GC_ERR_INVALID_HANDLE);
    return current;
}

bool LibCSIWrapper_Impl::GetGenCPBufferSizes(std::uint32_t& in, std::uint32_t& out)
{
    device_handle_t* handle = RequireDevice("GetGenCPBufferSizes");
    std::uint32_t newIn = 0, newOut = 0;
    if (Logged("libcsi_get_gencp_buffer_sizes", [&] { return libcsi_get_gencp_buffer_sizes(handle, &newIn, &newOut); }))
        return false;
    in = newIn;
    out = newOut;
    return true;
}

std::uint32_t LibCSIWrapper_Impl::GetMaximumPacketSize()
{
    device_handle_t* handle = RequireDevice("GetMaximumPacketSize");
    std::uint32_t in = 0, out = 0;
    if (Logged("libcsi_get_gencp_buffer_sizes", [&] { return libcsi_get_gencp_buffer_sizes(handle, &in, &out); }))
        return 0;
    return in;
}

std::uint32_t LibCSIWrapper_Impl::GetMinAnnouncedFrames()
{
    device_handle_t* handle = RequireDevice("GetMinAnnouncedFrames");
    std::uint32_t count = 0;
    if (Logged("libcsi_get_min_announced_frames", [&] { return libcsi_get_min_announced_frames(handle, &count); }))
        return 0;
    return count;
}

bool LibCSIWrapper_Impl::GetIPURestrictions(std::uint32_t& xMin, std::uint32_t& xMax, std::uint32_t& xInc,
                                            std::uint32_t& yMin, std::uint32_t& yMax, std::uint32_t& yInc,
                                            std::uint32_t& alignment)
{
    device_handle_t* handle = RequireDevice("GetIPURestrictions");
    libcsi_ipu_restrictions_t ipu{};
    if (Logged("libcsi_get_ipu_restrictions", [&] { return libcsi_get_ipu_restrictions(handle, &ipu); }))
        return false;
    xMin = ipu.m_bXValid ? ipu.m_nXMin : 0;
    xMax = ipu.m_bXValid ? ipu.m_nXMax : 0;
    xInc = ipu.m_bXValid ? ipu.m_nXInc : 0;
    yMin = ipu.m_bYValid ? ipu.m_nYMin : 0;
    yMax = ipu.m_bYValid ? ipu.m_nYMax : 0;
    yInc = ipu.m_bYValid ? ipu.m_nYInc : 0;
    alignment = ipu.mem_alignment;
    return true;
}

bool LibCSIWrapper_Impl::GetCSIConfig(std::uint8_t& laneCount, std::uint32_t& clockFrequency)
{
    device_handle_t* handle = RequireDevice("GetCSIConfig");
    std::uint8_t lanes = 0;
    std::uint32_t clock = 0;
    if (Logged("libcsi_get_csi_config", [&] { return libcsi_get_csi_config(handle, &lanes, &clock); }))
        return false;
    laneCount = lanes;
    clockFrequency = clock;
    return true;
}

bool LibCSIWrapper_Impl::SetCSIConfig(std::uint8_t& laneCount, std::uint32_t& clockFrequency)
{
    device_handle_t* handle = RequireDevice("SetCSIConfig");
    std::uint8_t lanes = laneCount;
    std::uint32_t clock = clockFrequency;
    if (Logged("libcsi_set_csi_config", [&] { return libcsi_set_csi_config(handle, &lanes, &clock); }))
        return false;
    laneCount = lanes;
    clockFrequency = clock;
    return true;
}

std::set<std::uint8_t> LibCSIWrapper_Impl::GetSupportedLaneCounts()
{
    device_handle_t* handle = RequireDevice("GetSupportedLaneCounts");
    std::uint8_t mask = 0;
    std::set<std::uint8_t> counts;
    if (Logged("libcsi_get_supported_lane_counts", [&] { return libcsi_get_supported_lane_counts(handle, &mask); }))
        return counts;
    for (std::uint8_t lanes = 1; lanes <= 4; ++lanes)
        if (mask & (1u << (lanes - 1)))
            counts.insert(lanes);
    return counts;
}

std::set<std::uint32_t> LibCSIWrapper_Impl::GetSupportedDataIdentifiers()
{
    device_handle_t* handle = RequireDevice("GetSupportedDataIdentifiers");
    std::uint64_t words[4] = {};
    std::set<std::uint32_t> identifiers;
    if (Logged("libcsi_get_supported_csi_data_identifiers",
               [&] { return libcsi_get_supported_csi_data_identifiers(handle, words); }))
        return identifiers;
    for (std::uint32_t word = 0; word < 4; ++word)
        for (std::uint32_t bit = 0; bit < 64; ++bit)
            if (words[word] & (std::uint64_t{1} << bit))
                identifiers.insert(word * 64 + bit);
    return identifiers;
}

std::map<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> LibCSIWrapper_Impl::GetClockRanges()
{
    device_handle_t* handle = RequireDevice("GetClockRanges");
    std::map<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> ranges;
    for (std::uint8_t lanes : GetSupportedLaneCounts()) {
        std::uint32_t minimum = 0, maximum = 0;
        if (Logged("libcsi_get_supported_csi_host_clock_range",
                   [&] { return libcsi_get_supported_csi_host_clock_range(handle, lanes, &minimum, &maximum); }) == 0)
            ranges[lanes] = {minimum, maximum};
    }
    return ranges;
}

std::set<std::uint64_t> LibCSIWrapper_Impl::GetStatisticsCapability()
{
    device_handle_t* handle = RequireDevice("GetStatisticsCapability");
    std::uint64_t mask = 0;
    std::set<std::uint64_t> capabilities;
    if (Logged("libcsi_get_statistics_capability", [&] { return libcsi_get_statistics_capability(handle, &mask); }))
        return capabilities;
    for (unsigned bit = 0; bit < 64; ++bit)
        if (mask & (std::uint64_t{1} << bit))
            capabilities.insert(std::uint64_t{1} << bit);
    return capabilities;
}

std::uint32_t LibCSIWrapper_Impl::GetCCILinkSpeed()
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while getting CCI link speed. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    std::uint32_t speed = 0;
    const std::int32_t result =
        Logged("libcsi_get_cci_link_speed", [&] { return libcsi_get_cci_link_speed(current, &speed); });
    if (result != 0)
        RefuseResult("Error while getting link speed. Error %1%", result, GC_ERR_ERROR);
    return speed;
}

// A fresh record at each call: the getters below each want the value of now.
libcsi_stream_statistics_t LibCSIWrapper_Impl::ReadStatistics()
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while getting stream statistics. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    libcsi_stream_statistics_t statistics{};
    const std::int32_t result =
        Logged("libcsi_get_stream_statistics", [&] { return libcsi_get_stream_statistics(current, &statistics); });
    if (result != 0)
        RefuseResult("Error while getting stream statistics. Error %1%", result, GC_ERR_ERROR);
    return statistics;
}

std::uint64_t LibCSIWrapper_Impl::GetDeliveredFrames() { return ReadStatistics().m_nFramesCount; }

std::uint64_t LibCSIWrapper_Impl::GetCRCErrorFrames() { return ReadStatistics().m_nPacketCRCError; }

std::uint64_t LibCSIWrapper_Impl::GetUnderrunCount() { return ReadStatistics().m_nFramesUnderrun; }

std::uint64_t LibCSIWrapper_Impl::GetIncompleteFrames() { return ReadStatistics().m_nFramesIncomplete; }

double LibCSIWrapper_Impl::GetFrameRate() { return ReadStatistics().m_dFrameRate; }

void LibCSIWrapper_Impl::ResetStatistics()
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while resetting stream statistics. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    const std::int32_t result =
        Logged("libcsi_reset_stream_statistics", [&] { return libcsi_reset_stream_statistics(current); });
    if (result != 0)
        RefuseResult("Error while resetting stream statistics. Error %1%", result, GC_ERR_ERROR);
}

bool LibCSIWrapper_Impl::ExtVersion(std::int32_t id, std::string& version)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        return false;
    std::int32_t type = 0;
    std::uint32_t packed = 0;
    std::uint64_t size = sizeof packed;
    if (Logged("libcsi_get_ext_info", [&] { return libcsi_get_ext_info(current, id, &type, &packed, &size); }))
        return false;
    version = VersionText(packed);
    return true;
}

bool LibCSIWrapper_Impl::GetDriverVersion(std::string& version) { return ExtVersion(0, version); }

bool LibCSIWrapper_Impl::GetLibraryVersion(std::string& version) { return ExtVersion(1, version); }

bool LibCSIWrapper_Impl::GetApiVersion(std::string& version)
{
    std::uint32_t words[4] = {};
    if (Logged("libcsi_get_version", [&] { return libcsi_get_version(words); }))
        return false;
    version = (boost::format("%1%.%2%.%3%.%4%") % words[0] % words[1] % words[2] % words[3]).str();
    return true;
}

std::int32_t LibCSIWrapper_Impl::SetLinkSpeed(std::uint32_t)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while setting current link speed. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    return 0;
}

frame_handle_t* LibCSIWrapper_Impl::AllocAndAnnounceFrame(std::uint32_t ipuX, std::uint32_t ipuY, FrameRecord* record)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while alloc and announcing frames. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    if (!record)
        Refuse("Error while alloc and announcing frames. Invalid frame pointer %1%", record, GC_ERR_INVALID_PARAMETER);
    frame_handle_t* handle = nullptr;
    if (Logged("libcsi_alloc_and_announce_frame",
               [&] { return libcsi_alloc_and_announce_frame(current, ipuX, ipuY, &record->frame, &handle); }))
        return nullptr;
    record->handle = handle;
    return handle;
}

frame_handle_t* LibCSIWrapper_Impl::AnnounceFrame(std::uint32_t ipuX, std::uint32_t ipuY, FrameRecord* record)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while announcing frames. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    if (!record)
        Refuse("Error while announcing frames. Invalid frame pointer %1%", record, GC_ERR_INVALID_PARAMETER);
    frame_handle_t* handle = nullptr;
    if (Logged("libcsi_announce_frame",
               [&] { return libcsi_announce_frame(current, ipuX, ipuY, &record->frame, &handle); }))
        return nullptr;
    record->handle = handle;
    return handle;
}

void LibCSIWrapper_Impl::OnFrame(void* context, frame_handle_t*, lib_frame_transfer*, std::uint64_t,
                                 std::uint32_t status)
{
    auto* record = static_cast<FrameRecord*>(context);
    if (!record || !record->callback)
        return;
    record->status = status;
    record->callback(record);
}

std::int32_t LibCSIWrapper_Impl::QueueFrame(FrameRecord* record)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while queuing frames. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    if (!record)
        Refuse("Error while queuing frames. Invalid frame pointer %1%", record, GC_ERR_INVALID_PARAMETER);
    return Logged("libcsi_queue_frame",
                  [&] { return libcsi_queue_frame(current, record->handle, &LibCSIWrapper_Impl::OnFrame, record); });
}

std::int32_t LibCSIWrapper_Impl::FlushFrames()
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while flushing transfers. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    return Logged("libcsi_flush_frames", [&] { return libcsi_flush_frames(current); });
}

std::int32_t LibCSIWrapper_Impl::RevokeFrame(frame_handle_t* frame)
{
    // Read once: CloseDevice may clear it meanwhile, and libcsi refuses a closed handle.
    device_handle_t* const current = device;
    if (!current)
        Refuse("Error while revoking transfers. Invalid device handle %1%", current, GC_ERR_INVALID_HANDLE);
    return Logged("libcsi_revoke_frame", [&] { return libcsi_revoke_frame(current, frame); });
}

std::int32_t LibCSIWrapper_Impl::StartStream(std::uint8_t parameters, lib_channel_transfer* transfer)
{
    device_handle_t* handle = RequireDevice("StartStream");
    if (transfer)
        streamTransfer = transfer;
    Library::MediaLogFormat("Start channel deviceNumber = %d, ENDPOINT_MODE_SI.", deviceNumber);
    const std::int32_t result = Logged("libcsi_start_stream", [&] { return libcsi_start_stream(handle, parameters); });
    if (result == 0) {
        streamStarted = true;
        Library::MediaLog("StartReceiveData ENDPOINT_MODE_SI OK.");
        return 0;
    }
    Library::MediaLog("Start ENDPOINT_MODE_SI failed.");
    Call("libcsi_stop_stream", [&] { return libcsi_stop_stream(handle, 200); });
    return result;
}

std::int32_t LibCSIWrapper_Impl::StopStream()
{
    device_handle_t* handle = RequireDevice("StopStream");
    // The driver's stop always gets 200 ms; the data stream's StreamStopTimeout register only sets a
    // deadline that no wait of the stream channel reads (kept so: the register stays, the driver's wait is fixed).
    const std::int32_t result = Call("libcsi_stop_stream", [&] { return libcsi_stop_stream(handle, 200); });
    if (result != 0)
        Library::MediaLogFormat("StopReceiveData ENDPOINT_MODE_SI failed result = %d.", result);
    else
        Library::MediaLog("StopReceiveData ENDPOINT_MODE_SI OK.");
    Library::MediaLog("Stop ENDPOINT_MODE_SI.");
    streamStarted = false;
    return result;
}

void LibCSIWrapper_Impl::OnDiscovery(void* context, const char* portID, bool available)
{
    auto* wrapper = static_cast<LibCSIWrapper_Impl*>(context);
    if (!wrapper)
        return;
    Library::MediaLogFormat("DiscoveryCallback portID=%s, availability=%d", portID ? portID : "", available ? 1 : 0);
    try {
        wrapper->discoverySignal(portID, static_cast<unsigned char>(available ? 1 : 0));
    } catch (...) {
        // A failing slot must not reach libcsi's discovery thread.
    }
}

void LibCSIWrapper_Impl::OnReport(void*, const char* message)
{
    if (!message)
        return;
    std::string text(message);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    Library::MediaLogFormat("%s", text.c_str());
}

} }
