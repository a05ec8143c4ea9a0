// Opening, closing and resetting a camera, and the queries of an open one.
#include "libcsi/Boundary.h"
#include "libcsi/Config.h"
#include "libcsi/Device.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"
#include "libcsi/NamedThread.h"
#include "libcsi/OsSeam.h"

#include <linux/videodev2.h>

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace QEL { namespace LibCSIImpl {

namespace {

constexpr std::uint16_t RegGcprmAddress = 0x0010;
constexpr std::uint16_t RegBcrmAddress = 0x0014;
constexpr std::uint16_t RegChangeMode = 0x021C;
constexpr std::uint16_t RegCurrentMode = 0x021D;
constexpr std::uint16_t RegReset = 0x021E;
constexpr std::uint32_t RequiredInterfaceVersion = 0x10006;

// Switches the camera to GenCP mode (1) or back (0).
int32_t SetDeviceMode(Device& device, std::uint8_t mode)
{
    std::uint64_t current = 0;
    if (!ReadValue(device, RegCurrentMode, 1, current))
        return LIBCSI_I2C_READ_FAILED;
    device.deviceMode = current == 1 ? 1 : 0;
    if ((current == 1) == (mode == 1))
        return LIBCSI_OK;
    if (WriteValue(device, RegChangeMode, mode, 1) < 0)
        return LIBCSI_I2C_WRITE_FAILED;
    if (!WaitForRegister(device, RegCurrentMode, mode, 3000))
        return LIBCSI_TIMEOUT;
    device.deviceMode = mode;
    return LIBCSI_OK;
}

bool Ioctl(Device& device, unsigned long request, void* argument)
{
    return Os::Current().Ioctl(device.m_nFileHandle, request, argument) >= 0;
}

// Fills the driver info, from the driver or, for an old driver, from what the board says.
void QueryDriverInfo(Device& device, const v4l2_capability& capability)
{
    if (Ioctl(device, VIDIOC_G_DRIVER_INFO, &device.driverInfo)) {
        if (device.driverInfo.usrptr_alignment == 0)
            device.driverInfo.usrptr_alignment = 1;
        return;
    }
    LIBCSI_LOG(TierWarning, "Driver does not support VIDIOC_G_DRIVER_INFO\n");
    qel_driver_info& info = device.driverInfo;
    info = qel_driver_info{};
    if (strcasestr(reinterpret_cast<const char*>(capability.driver), "tegra")) {
        info.manufacturer = 1;
        info.soc = 1;
        info.usrptr_alignment = 128;
    } else {
        char machine[129] = {};
        Os::Backend& os = Os::Current();
        int fd = os.Open("/sys/devices/soc0/machine", O_RDONLY);
        ssize_t n = fd >= 0 ? os.Read(fd, machine, 128) : -1;
        if (fd >= 0)
            os.Close(fd);
        info.board = (n <= 0 || strcasestr(machine, "nitrogen")) ? 0 : 1;
        info.usrptr_alignment = 1;
    }
    info.driver_version = 0x10000;
    info.driver_interface_version = 0x10004;
    info.driver_caps = 3;
}

bool SetVideoInput(Device& device)
{
    const qel_driver_info& info = device.driverInfo;
    for (std::uint32_t index = 0; index < 20; ++index) {
        v4l2_input input{};
        input.index = index;
        if (!Ioctl(device, VIDIOC_ENUMINPUT, &input))
            return true;
        LIBCSI_LOG(TierTrace, " Input %u: %s\n", index, reinterpret_cast<const char*>(input.name));
        if (info.manufacturer == 1 && info.soc == 1 && info.board == 0) {
            LIBCSI_LOG(TierTrace, " Video input not set for nVidia\n");
            return true;
        }
        if (info.manufacturer == 0 && info.soc == 0 && info.board <= 1) {
            if (std::strstr(reinterpret_cast<const char*>(input.name), "CSI MEM")) {
                LIBCSI_LOG(TierTrace, " Set video input to %d\n", static_cast<int>(index));
                int selected = static_cast<int>(index);
                return Ioctl(device, VIDIOC_S_INPUT, &selected);
            }
            continue;
        }
        if (info.manufacturer == 0 && info.soc >= 2 && info.soc <= 4) {
            static const char* const names[] = {"i.MX8", "i.MX8M", "i.MX8X"};
            LIBCSI_LOG(TierTrace, " Video input not set for %s\n", names[info.soc - 2]);
            return true;
        }
    }
    return true;
}

// Steps 10 to 21 of the open: the camera's register maps and the driver's limits.
int32_t ReadCameraAndLimits(Device& device)
{
    int32_t result = LIBCSI_OK;
    auto fail = [&](const char* message) {
        LIBCSI_LOG(TierError, message, "libcsi_open_device");
        if (result == LIBCSI_OK)
            result = LIBCSI_READ_FAILED;
    };
    std::uint64_t value = 0;
    if (!ReadValue(device, RegGcprmAddress, 2, value))
        fail(" %s ERROR: Failed to retrieve GCPRM address.\n");
    device.m_nCCI_GCPRM_Address = static_cast<std::uint16_t>(value);
    value = 0;
    if (!ReadValue(device, RegBcrmAddress, 2, value))
        fail(" %s ERROR: Failed to retrieve BCRM address.\n");
    device.m_nCCI_BCRM_Address = static_cast<std::uint16_t>(value);
    if (device.m_nCCI_GCPRM_Address == 0) {
        LIBCSI_LOG(TierError, " ERROR: Invalid parameter.\n");
        if (result == LIBCSI_OK)
            result = LIBCSI_READ_FAILED;
    } else {
        if (!ReadValue(device, device.m_nCCI_GCPRM_Address + 0x04, 2, value))
            fail(" %s ERROR: Failed to retrieve GenCP Out Buffer address.\n");
        device.m_nGCPRM_GenCP_Outbuf_Address = static_cast<std::uint16_t>(value);
        if (!ReadValue(device, device.m_nCCI_GCPRM_Address + 0x0C, 2, value))
            fail(" %s ERROR: Failed to retrieve GenCP In Buffer address.\n");
        device.m_nGCPRM_GenCP_Inbuf_Address = static_cast<std::uint16_t>(value);
    }
    qel_gencp_buffer_sizes sizes{};
    if (!Ioctl(device, VIDIOC_G_GENCP_BUFFER_SIZES, &sizes))
        fail("  ERROR: Failed to retrieve GenCP buffer sizes.\n");
    device.m_nGenCPInBufferSize = sizes.in_size;
    device.m_nGenCPOutBufferSize = sizes.out_size;
    if (!ReadValue(device, device.m_nCCI_GCPRM_Address, 4, value)) {
        fail(" %s ERROR: Failed to retrieve GCPRM layout version.\n");
    } else {
        device.m_nGCPRM_Layout_Version = static_cast<std::uint32_t>(value);
        if ((value >> 16) != 1) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid GCPRM layout version. Required %d.x. Available %d.%d\n",
                       "libcsi_open_device", 1, static_cast<int>(value >> 16), static_cast<int>(value & 0xFFFF));
            result = LIBCSI_INVALID_LAYOUT_VERSION;
        }
    }
    std::uint32_t laneMask = 0;
    if (!Ioctl(device, VIDIOC_G_SUPPORTED_LANE_COUNTS, &laneMask))
        fail(" %s ERROR: Failed to retrieve supported lane counts.\n");
    for (std::uint8_t lanes = 1; lanes <= 4; ++lanes)
        if (laneMask & (1u << (lanes - 1)))
            device.laneCounts.insert(lanes);
    qel_clock_ranges ranges{};
    if (!Ioctl(device, VIDIOC_G_CSI_CLOCK_RANGES, &ranges))
        fail(" %s ERROR: Failed to retrieve supported CSI clock ranges.\n");
    for (std::uint8_t i = 0; i < 4; ++i)
        if (ranges.lanes[i].valid)
            device.clockRanges[static_cast<std::uint8_t>(i + 1)] = {ranges.lanes[i].min_hz, ranges.lanes[i].max_hz};
    qel_data_identifiers identifiers{};
    if (!Ioctl(device, VIDIOC_G_DATA_IDENTIFIERS, &identifiers))
        fail(" %s ERROR: Failed to retrieve supported CSI data identifiers.\n");
    std::copy(std::begin(identifiers.words), std::end(identifiers.words), device.dataIdentifiers);
    if (!Ioctl(device, VIDIOC_G_IPU_RESTRICTIONS, &device.ipuRestrictions)) {
        fail(" %s ERROR: Failed to retrieve IPU restrictions.\n");
    } else if (TheConfig().ipuOverride) {
        const Config& c = TheConfig();
        LIBCSI_LOG(TierTrace, "Using IPU override values.\n");
        device.ipuRestrictions = qel_ipu_restrictions{1, {}, c.ipuXMin, c.ipuXMax, c.ipuXInc,
                                                      1, {}, c.ipuYMin, c.ipuYMax, c.ipuYInc};
    }
    if (!Ioctl(device, VIDIOC_G_MIN_ANNOUNCED_FRAMES, &device.m_nMinAnnouncedFrames))
        fail(" %s ERROR: Failed to min announced farames value.\n");
    std::uint64_t mask = 0;
    if (!Ioctl(device, VIDIOC_G_STATISTICS_CAPABILITIES, &mask)) {
        LIBCSI_LOG(TierError, "  ERROR: Failed to retrieve statistics capability counts.\n");
        if (result == LIBCSI_OK)
            result = LIBCSI_READ_FAILED;
    }
    for (int bit = 0; bit < 4; ++bit)
        if (mask & (1u << bit))
            device.statisticsCapabilities.insert(1u << bit);
    if ((mask & 0x30) == 0x30)
        device.statisticsCapabilities.insert(0x10);
    std::uint64_t firmware = 0;
    if (device.m_nCCI_BCRM_Address && ReadValue(device, device.m_nCCI_BCRM_Address + 0x10, 8, firmware))
        LIBCSI_LOG(TierTrace, "  Device firmware version: %u.%u.%u.%u (0x%lX)\n",
                   static_cast<unsigned>(firmware & 0xFF), static_cast<unsigned>((firmware >> 8) & 0xFF),
                   static_cast<unsigned>((firmware >> 16) & 0xFFFF), static_cast<unsigned>(firmware >> 32),
                   static_cast<unsigned long>(firmware));
    else
        LIBCSI_LOG(TierWarning, "BCRM_DEVICE_FIRMWARE_VERSION_64R register not available.\n");
    return result;
}

void ClearCameraState(Device& device)
{
    device.m_nCCI_GCPRM_Address = device.m_nCCI_BCRM_Address = 0;
    device.m_nGCPRM_Layout_Version = 0;
    device.m_nGCPRM_GenCP_Outbuf_Address = device.m_nGCPRM_GenCP_Inbuf_Address = 0;
    device.laneCounts.clear();
    device.statisticsCapabilities.clear();
    device.clockRanges.clear();
    device.m_nGenCPInBufferSize = device.m_nGenCPOutBufferSize = 0;
    device.ipuRestrictions = qel_ipu_restrictions{};
    std::fill(std::begin(device.dataIdentifiers), std::end(device.dataIdentifiers), 0);
    device.m_nMinAnnouncedFrames = 1;
    device.streamRunCounter = 0;
    device.formatDirty = true;
}

void ClosePipe(int (&fds)[2])
{
    for (int& fd : fds)
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
}

}

// The device of a handle in the device list, or null for a handle that is none of them.
std::shared_ptr<Device> FindDevice(const Library& library, const Device* handle)
{
    for (const auto& device : library.devices)
        if (device.get() == handle)
            return device;
    return nullptr;
}

} }

using namespace QEL;
using namespace QEL::LibCSIImpl;

extern "C" {

int32_t libcsi_open_device(uint32_t nDeviceIndex, device_handle_t** ppDeviceHandle)
{
    return Exported(__func__, [&]() -> int32_t {
        LIBCSI_LOG(TierTrace, "%s(nDeviceIndex=%u)\n", "libcsi_open_device", nDeviceIndex);
        if (!ppDeviceHandle)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        std::shared_ptr<Library> library;
        Device* found = nullptr;
        if (int32_t refused = DeviceAt(nDeviceIndex, library, found))
            return refused;
        Device& device = *found;
        std::lock_guard<std::mutex> lock(device.mutex);
        if (device.state != DeviceState::Closed) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", "libcsi_open_device");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        std::lock_guard<std::mutex> frames(device.frameMutex);
        device.m_nFileHandle = Os::Current().Open(device.devNode.c_str(), O_RDWR | O_NONBLOCK);
        if (device.m_nFileHandle < 0) {
            LIBCSI_LOG(TierError,
                       " %s ERROR: Open device failed. (errno=%d, %s)\nCamera might use invalid pixelformat.\n",
                       "libcsi_open_device", errno, std::strerror(errno));
            return LIBCSI_OPEN_FAILED;
        }
        if (::pipe(device.m_nStopDequeueEvent) != 0) {
            LIBCSI_LOG(TierError, " ERROR: Failed to create pipe. (errno=%d, %s)\n", errno, std::strerror(errno));
            Os::Current().Close(device.m_nFileHandle);
            device.m_nFileHandle = -1;
            return LIBCSI_ERROR;
        }
        int32_t result = LIBCSI_OK;
        if (SetDeviceMode(device, 1) != LIBCSI_OK) {
            LIBCSI_LOG(TierError, " %s ERROR: Failed to set GenCP mode.\n", "libcsi_open_device");
            result = LIBCSI_READ_FAILED;
        }
        v4l2_capability capability{};
        if (!Ioctl(device, VIDIOC_QUERYCAP, &capability)) {
            LIBCSI_LOG(TierError, " %s ERROR: Failed to retrieve driver caps.\n", "libcsi_open_device");
            result = LIBCSI_READ_FAILED;
        } else {
            LIBCSI_LOG(TierTrace, " Driver: %s, card: %s, bus: %s, capabilities 0x%08X\n",
                       reinterpret_cast<const char*>(capability.driver), reinterpret_cast<const char*>(capability.card),
                       reinterpret_cast<const char*>(capability.bus_info), capability.capabilities);
            QueryDriverInfo(device, capability);
        }
        const std::uint32_t interfaceVersion = device.driverInfo.driver_interface_version;
        if (interfaceVersion < RequiredInterfaceVersion) {
            LIBCSI_LOG(TierError,
                       " %s ERROR: Incompatible driver interface version. Found:%d.%d.%d Required:%d.%d.%d\n",
                       "libcsi_open_device", interfaceVersion >> 16, (interfaceVersion >> 8) & 0xFF,
                       interfaceVersion & 0xFF, 1, 0, 6);
            result = LIBCSI_INCOMPATIBLE_DRIVER;
        }
        if (!SetVideoInput(device)) {
            LIBCSI_LOG(TierError, " %s ERROR: Failed to set video input.\n", "libcsi_open_device");
            result = LIBCSI_READ_FAILED;
        }
        if (result == LIBCSI_OK)
            result = ReadCameraAndLimits(device);
        if (Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_RESET_STREAMSTAT, nullptr) < 0)
            LIBCSI_LOG(TierWarning, " %s WARNING: VIDIOC_RESET_STREAMSTAT failed (errno=%d, %s).\n",
                       "libcsi_open_device", errno, std::strerror(errno));
        if (result != LIBCSI_OK) {
            SetDeviceMode(device, 0);
            Os::Current().Close(device.m_nFileHandle);
            device.m_nFileHandle = -1;
            ClosePipe(device.m_nStopDequeueEvent);
            ClearCameraState(device);
            return result;
        }
        {
            std::lock_guard<std::mutex> output(device.outputMutex);
            device.callbackThreadState = ThreadState::Running;
        }
        device.callbackThread = StartNamedThread("csi-callback", [&device] { FrameCallbackThread(device); });
        SetState(device, DeviceState::Open);
        for (const auto& listed : library->devices)
            if (listed.get() == &device)
                library->openDevices.insert(listed);
        *ppDeviceHandle = &device;
        return LIBCSI_OK;
    });
}

int32_t libcsi_close_device(device_handle_t* pDeviceHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        DeviceState previous;
        {
            std::unique_lock<std::mutex> lock(device.mutex);
            device.stateCondition.wait(lock, [&] { return !Passing(device.state); });
            if (device.state == DeviceState::Closed)
                return LIBCSI_OK;
            std::lock_guard<std::mutex> frames(device.frameMutex);
            previous = device.state;
            SetState(device, DeviceState::Closing);
        }
        if (previous == DeviceState::Streaming)
            StopStream(device, 0);
        FlushFrames(device);
        StopCallbackThread(device);
        if (SetDeviceMode(device, 0) != LIBCSI_OK)
            LIBCSI_LOG(TierWarning, " WARNING: Failed to reset device mode.\n");
        Os::Current().Close(device.m_nFileHandle);
        {
            std::lock_guard<std::mutex> lock(device.mutex);
            std::lock_guard<std::mutex> frames(device.frameMutex);
            device.m_nFileHandle = -1;
            ClosePipe(device.m_nStopDequeueEvent);
            ClearCameraState(device);
            SetState(device, DeviceState::Closed);
        }
        LIBCSI_LOG(TierTrace, " Successfully closed device.\n");
        // The library's mutex comes before a device's everywhere: taken only once the device's are released.
        {
            std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
            if (auto library = CurrentLibrary())
                library->openDevices.erase(LiveDevice(&device));
        }
        return LIBCSI_OK;
    });
}

int32_t libcsi_reset_device(device_handle_t* pDeviceHandle)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        std::lock_guard<std::mutex> lock(device.mutex);
        std::lock_guard<std::mutex> frames(device.frameMutex);
        if (device.state != DeviceState::Open) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid parameter.\n", "libcsi_reset_device");
            return LIBCSI_INVALID_DEVICE_STATE;
        }
        if (WriteValue(device, RegReset, 1, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed.\n", "libcsi_reset_device");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        SetState(device, DeviceState::ResetRequested);
        return LIBCSI_OK;
    });
}

}
