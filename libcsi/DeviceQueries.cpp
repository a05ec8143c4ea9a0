// What an open camera and its driver can do.
#include "libcsi/Boundary.h"
#include "libcsi/Device.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"
#include "libcsi/OsSeam.h"

#include <cerrno>
#include <cstring>
#include <string>

using namespace QEL;
using namespace QEL::LibCSIImpl;

namespace {

// Runs `query` inside the boundary, under the library and the device mutex,
// on a device that is not closed (with `needsOpenState`, one open and not
// streaming), once the caller's arguments proved `argumentsValid`; it gets the
// exported function's name for its log lines (inside a lambda, __func__ would
// be "operator()").
template <class Query>
int32_t OnOpenDevice(const char* function, device_handle_t* handle, bool argumentsValid, Query query,
                     bool needsOpenState = false)
{
    return ExportedOnDevice(function, handle, [&](Device& device) -> int32_t {
        if (!argumentsValid)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        if (!CurrentLibrary())
            return LIBCSI_NOT_INITIALIZED;
        std::lock_guard<std::mutex> lock(device.mutex);
        if (needsOpenState ? device.state != DeviceState::Open : device.state == DeviceState::Closed) {
            LIBCSI_LOG(TierError, needsOpenState ? " %s ERROR: Invalid parameter.\n" : " %s ERROR: Invalid device state.\n",
                       function);
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        return query(device, function);
    });
}

// Asks the driver; a refusal is a failed driver call.
template <class T>
int32_t AskDriver(const char* function, const char* name, Device& device, unsigned long request, T& record)
{
    if (Os::Current().Ioctl(device.m_nFileHandle, request, &record) < 0) {
        LIBCSI_LOG(TierError, " %s ERROR: %s failed (errno=%d, %s).\n", function, name, errno, std::strerror(errno));
        return LIBCSI_DRIVER_CALL_FAILED;
    }
    return LIBCSI_OK;
}

// Used in the queries, where `function` names the exported function.
#define ASK(device, request, record) AskDriver(function, #request, device, request, record)

std::string BoardDescription(const qel_driver_info& info)
{
    std::string text = info.manufacturer == 0 ? "NXP" : info.manufacturer == 1 ? "NVIDIA" : "Unknown";
    switch (info.soc) {
    case 0: text += std::string(" i.MX6") + (info.board == 0 ? " Nitrogen" : info.board == 1 ? " Wandboard" : ""); break;
    case 1: text += " Tegra"; break;
    case 2: text += " i.MX8"; break;
    case 3: text += " i.MX8M"; break;
    case 4: text += " i.MX8X"; break;
    default: break;
    }
    return text;
}

}

extern "C" {

int32_t libcsi_get_ipu_restrictions(device_handle_t* pDeviceHandle, libcsi_ipu_restrictions_t* pRestrictions)
{
    return OnOpenDevice(__func__, pDeviceHandle, pRestrictions != nullptr, [&](Device& device, const char* function) {
        qel_ipu_restrictions ipu{};
        if (int32_t result = ASK(device, VIDIOC_G_IPU_RESTRICTIONS, ipu))
            return result;
        if (device.ipuRestrictions.x_valid && device.ipuRestrictions.y_valid)
            ipu = device.ipuRestrictions; // the values of the open, override included
        *pRestrictions = libcsi_ipu_restrictions_t{ipu.x_valid, ipu.x_min, ipu.x_max, ipu.x_inc, ipu.y_valid,
                                                   ipu.y_min, ipu.y_max, ipu.y_inc, device.driverInfo.usrptr_alignment};
        return static_cast<int32_t>(LIBCSI_OK);
    });
}

int32_t libcsi_get_gencp_buffer_sizes(device_handle_t* pDeviceHandle, uint32_t* pGencpInBufferSize,
                                      uint32_t* pGencpOutBufferSize)
{
    return OnOpenDevice(__func__, pDeviceHandle, pGencpInBufferSize && pGencpOutBufferSize,
                        [&](Device& device, const char* function) {
                            qel_gencp_buffer_sizes sizes{};
                            if (int32_t result = ASK(device, VIDIOC_G_GENCP_BUFFER_SIZES, sizes))
                                return result;
                            *pGencpInBufferSize = sizes.in_size;
                            *pGencpOutBufferSize = sizes.out_size;
                            return static_cast<int32_t>(LIBCSI_OK);
                        });
}

int32_t libcsi_get_min_announced_frames(device_handle_t* pDeviceHandle, uint32_t* pMinAnnouncedFrames)
{
    return OnOpenDevice(__func__, pDeviceHandle, pMinAnnouncedFrames != nullptr,
                        [&](Device& device, const char* function) {
                            return ASK(device, VIDIOC_G_MIN_ANNOUNCED_FRAMES, *pMinAnnouncedFrames);
                        });
}

int32_t libcsi_get_statistics_capability(device_handle_t* pDeviceHandle, uint64_t* pStatisticsCapabilities)
{
    return OnOpenDevice(__func__, pDeviceHandle, pStatisticsCapabilities != nullptr,
                        [&](Device& device, const char* function) {
                            std::uint64_t mask = 0;
                            if (int32_t result = ASK(device, VIDIOC_G_STATISTICS_CAPABILITIES, mask))
                                return result;
                            std::uint64_t capabilities = mask & 0xF;
                            if ((mask & 0x30) == 0x30)
                                capabilities |= 0x10;
                            *pStatisticsCapabilities = capabilities;
                            return static_cast<int32_t>(LIBCSI_OK);
                        });
}

int32_t libcsi_get_supported_lane_counts(device_handle_t* pDeviceHandle, uint8_t* pSupportedLaneCounts)
{
    return OnOpenDevice(__func__, pDeviceHandle, pSupportedLaneCounts != nullptr,
                        [&](Device& device, const char* function) {
                            std::uint32_t mask = 0;
                            if (int32_t result = ASK(device, VIDIOC_G_SUPPORTED_LANE_COUNTS, mask))
                                return result;
                            *pSupportedLaneCounts = static_cast<std::uint8_t>(mask & 0xF);
                            return static_cast<int32_t>(LIBCSI_OK);
                        });
}

int32_t libcsi_get_supported_csi_data_identifiers(device_handle_t* pDeviceHandle, uint64_t* pDataIdentifiers)
{
    return OnOpenDevice(__func__, pDeviceHandle, pDataIdentifiers != nullptr,
                        [&](Device& device, const char* function) {
                            qel_data_identifiers identifiers{};
                            if (int32_t result = ASK(device, VIDIOC_G_DATA_IDENTIFIERS, identifiers))
                                return result;
                            std::memcpy(pDataIdentifiers, identifiers.words, sizeof identifiers.words);
                            return static_cast<int32_t>(LIBCSI_OK);
                        });
}

int32_t libcsi_get_supported_csi_host_clock_range(device_handle_t* pDeviceHandle, uint8_t nLaneCount,
                                                  uint32_t* pMinFrequency, uint32_t* pMaxFrequency)
{
    return OnOpenDevice(__func__, pDeviceHandle, pMinFrequency && pMaxFrequency,
                        [&](Device& device, const char* function) {
                            auto range = device.clockRanges.find(nLaneCount);
                            if (!device.laneCounts.count(nLaneCount) || range == device.clockRanges.end()) {
                                LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter: nLaneCount\n",
                                           "libcsi_get_supported_csi_host_clock_range");
                                return static_cast<int32_t>(LIBCSI_INVALID_PARAMETER);
                            }
                            *pMinFrequency = range->second.first;
                            *pMaxFrequency = range->second.second;
                            return static_cast<int32_t>(LIBCSI_OK);
                        });
}

int32_t libcsi_get_cci_link_speed(device_handle_t* pDeviceHandle, uint32_t* pCCILinkSpeed)
{
    return OnOpenDevice(__func__, pDeviceHandle, pCCILinkSpeed != nullptr, [&](Device& device, const char* function) {
        std::uint32_t clock = 0;
        if (int32_t result = ASK(device, VIDIOC_G_I2C_CLOCK_FREQ, clock))
            return result;
        if (clock == 100000) {
            LIBCSI_LOG(TierTrace, " CCI link speed: 100kHz\n");
            *pCCILinkSpeed = 0;
        } else if (clock == 400000) {
            LIBCSI_LOG(TierTrace, " CCI link speed: 400kHz\n");
            *pCCILinkSpeed = 1;
        } else {
            return static_cast<int32_t>(LIBCSI_I2C_CLOCK_UNKNOWN);
        }
        return static_cast<int32_t>(LIBCSI_OK);
    });
}

int32_t libcsi_get_csi_config(device_handle_t* pDeviceHandle, uint8_t* pLaneCount, uint32_t* pLaneClockFrequency)
{
    return OnOpenDevice(
        __func__, pDeviceHandle, pLaneCount && pLaneClockFrequency,
        [&](Device& device, const char* function) {
            qel_csi_config config{};
            if (int32_t result = ASK(device, VIDIOC_G_CSI_CONFIG, config))
                return result;
            *pLaneCount = config.lane_count;
            *pLaneClockFrequency = config.clock_hz;
            return static_cast<int32_t>(LIBCSI_OK);
        },
        true);
}

int32_t libcsi_set_csi_config(device_handle_t* pDeviceHandle, uint8_t* pLaneCount, uint32_t* pLaneClockFrequency)
{
    return OnOpenDevice(
        __func__, pDeviceHandle, pLaneCount && pLaneClockFrequency,
        [&](Device& device, const char* function) {
            qel_csi_config config{*pLaneCount, {}, *pLaneClockFrequency};
            LIBCSI_LOG(TierTrace, " Trying new settings:\n  lanes=%u clock=%u\n", config.lane_count, config.clock_hz);
            if (int32_t result = ASK(device, VIDIOC_S_CSI_CONFIG, config))
                return result;
            LIBCSI_LOG(TierTrace, " Driver accepted:\n  lanes=%u clock=%u\n", config.lane_count, config.clock_hz);
            *pLaneCount = config.lane_count;
            *pLaneClockFrequency = config.clock_hz;
            return static_cast<int32_t>(LIBCSI_OK);
        },
        true);
}

int32_t libcsi_get_ext_info(device_handle_t* pDeviceHandle, int32_t eInfoID, int32_t* pType, void* pData,
                            uint64_t* pSize)
{
    return OnOpenDevice(__func__, pDeviceHandle, pType && pSize, [&](Device& device, const char* function) {
        const qel_driver_info& info = device.driverInfo;
        std::uint32_t word;
        switch (eInfoID) {
        case 0:
            word = info.driver_version;
            break;
        case 1:
            word = info.driver_interface_version;
            break;
        case 2:
            word = static_cast<std::uint32_t>(info.manufacturer | info.soc << 8 | info.board << 16);
            break;
        case 3: {
            const std::string text = BoardDescription(info);
            *pType = LIBCSI_TYPE_STRING;
            if (pData) {
                if (*pSize < text.size() + 1) {
                    *pSize = text.size() + 1;
                    return static_cast<int32_t>(LIBCSI_BUFFER_TOO_SMALL);
                }
                std::memcpy(pData, text.data(), text.size());
            }
            *pSize = text.size() + 1;
            return static_cast<int32_t>(LIBCSI_OK);
        }
        default:
            return static_cast<int32_t>(LIBCSI_INVALID_PARAMETER);
        }
        *pType = LIBCSI_TYPE_UINT32;
        if (pData) {
            if (*pSize < sizeof word) {
                *pSize = sizeof word;
                return static_cast<int32_t>(LIBCSI_BUFFER_TOO_SMALL);
            }
            std::memcpy(pData, &word, sizeof word);
        }
        *pSize = sizeof word;
        return static_cast<int32_t>(LIBCSI_OK);
    });
}

}
