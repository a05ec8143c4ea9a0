#include "libcsi/Boundary.h"
#include "libcsi/Config.h"
#include "libcsi/SafeFile.h"
#include "libcsi/Device.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"
#include "libcsi/OsSeam.h"

#include <fcntl.h>
#include <iconv.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace QEL { namespace LibCSIImpl {

namespace {

// Reads up to 256 bytes of a file through the seam.
bool ReadFile(const std::string& path, std::string& text)
{
    Os::Backend& os = Os::Current();
    int fd = os.Open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    char buffer[256] = {};
    ssize_t n = os.Read(fd, buffer, sizeof buffer);
    os.Close(fd);
    if (n < 0)
        return false;
    text.assign(buffer, static_cast<std::size_t>(n));
    return true;
}

std::string CutAtLineEnd(const std::string& text)
{
    return text.substr(0, std::min(text.find('\n'), text.find('\xFF')));
}

const char* InfoName(std::int32_t id)
{
    static const char* const names[] = {"INFO_Availability",     "INFO_CCIVersionMinor", "INFO_CCIVersionMajor",
                                        "INFO_GenCPModeSupported", "INFO_DeviceGUID",      "INFO_ManufacturerName",
                                        "INFO_ModelName",        "INFO_FamilyName",      "INFO_DeviceVersion",
                                        "INFO_ManufacturerInfo", "INFO_SerialNumber",    "INFO_UserDefinedName",
                                        "INFO_PortID"};
    return id >= 0 && id <= 12 ? names[id] : "Unknown INFO_";
}

void WriteInfoFile(const Library& library)
{
    std::FILE* file = OpenFileForWriting(TheConfig().PathOf("libcsi_info.txt"), false);
    if (!file)
        return;
    std::uint32_t version[4];
    GetVersion(version);
    std::fprintf(file, "libcsi version: %u.%u.%u.%u\n", version[0], version[1], version[2], version[3]);
    std::fprintf(file, "%lu device(s) found:\n", static_cast<unsigned long>(library.devices.size()));
    for (std::size_t i = 0; i < library.devices.size(); ++i) {
        const Device& d = *library.devices[i];
        std::fprintf(file, "DeviceIndex=%d\n", static_cast<int>(i));
        std::fprintf(file, " DriverVersion=%d.%d.%d.%d\n", d.driverVersion[0], d.driverVersion[1], d.driverVersion[2],
                     d.driverVersion[3]);
        std::fprintf(file, " DevNode=%s\n", d.devNode.c_str());
        std::fprintf(file, " SysNode=%s\n", d.sysNode.c_str());
        std::fprintf(file, " PortID=%s\n", d.portID.c_str());
    }
    std::fprintf(file, "\n");
    std::fclose(file);
}

// Converts a device string to ISO-8859-1; false when iconv cannot be opened.
bool ToLatin1(const std::string& raw, const char* encoding, std::string& text)
{
    iconv_t converter = ::iconv_open("ISO-8859-1", encoding);
    if (converter == reinterpret_cast<iconv_t>(-1))
        return false;
    char out[256] = {};
    std::string input = raw;
    char* in = input.data();
    std::size_t inLeft = input.size();
    char* outPointer = out;
    std::size_t outLeft = sizeof out - 1;
    // A character that cannot be converted ends the conversion; what came before stands.
    ::iconv(converter, &in, &inLeft, &outPointer, &outLeft);
    ::iconv_close(converter);
    text.assign(out, static_cast<std::size_t>(outPointer - out));
    return true;
}

template <class T>
int32_t PutValue(const T& value, int32_t type, int32_t* pType, void* pData, uint64_t* pSize)
{
    *pType = type;
    if (!pData) {
        *pSize = sizeof(T);
        return LIBCSI_OK;
    }
    if (*pSize < sizeof(T)) {
        *pSize = sizeof(T);
        return LIBCSI_BUFFER_TOO_SMALL;
    }
    std::memcpy(pData, &value, sizeof(T));
    *pSize = sizeof(T);
    return LIBCSI_OK;
}

int32_t PutString(const std::string& text, int32_t* pType, void* pData, uint64_t* pSize, bool zeroFirst)
{
    *pType = LIBCSI_TYPE_STRING;
    const uint64_t needed = text.size() + 1;
    if (!pData) {
        *pSize = needed;
        return LIBCSI_OK;
    }
    if (*pSize < needed) {
        *pSize = needed;
        return LIBCSI_BUFFER_TOO_SMALL;
    }
    if (zeroFirst)
        std::memset(pData, 0, *pSize);
    std::memcpy(pData, text.data(), text.size());
    *pSize = needed;
    return LIBCSI_OK;
}

}

bool ReadSysfs(std::uint8_t bus, std::uint8_t address, const char* name, std::string& text)
{
    char path[256];
    std::snprintf(path, sizeof path, "/sys/class/i2c-dev/i2c-%d/device/%d-00%02x/%s", bus, bus, address, name);
    if (!ReadFile(path, text))
        return false;
    text = CutAtLineEnd(text);
    return true;
}

void DiscoveryThread(std::shared_ptr<Library> library)
{
    Os::Backend& os = Os::Current();
    std::map<int, std::string> availability;
    std::map<int, char> lastSeen;
    int highest = -1;
    fd_set savedRead, savedExcept;
    FD_ZERO(&savedRead);
    FD_ZERO(&savedExcept);
    std::unique_lock<std::mutex> lock(library->discoveryMutex);
    const int stopPipe = library->stopDiscoveryPipe[0], updatePipe = library->updateDeviceListPipe[0];
    FD_SET(stopPipe, &savedRead);
    FD_SET(updatePipe, &savedRead);
    auto closeAll = [&] {
        for (auto& entry : availability)
            os.Close(entry.first);
        availability.clear();
        lastSeen.clear();
        FD_ZERO(&savedExcept);
        highest = -1;
    };
    // The last value seen of each attribute: a change that comes between the
    // report of one change and the re-arming read below is reported too,
    // instead of being swallowed by that read.
    auto report = [&](const std::string& portID, char byte) {
        LIBCSI_LOG(TierTrace, " %s: Availability changed for %s. New value: %c\n", "discovery_thread_proc",
                   portID.c_str(), byte);
        auto message = std::make_shared<DiscoveryMessage>(DiscoveryMessage{portID, byte != '0'});
        lock.unlock();
        {
            std::lock_guard<std::mutex> queueLock(library->discoveryMessageMutex);
            library->discoveryMessages.push_back(message);
            library->discoveryMessageCondition.notify_all();
        }
        lock.lock();
    };
    while (library->discoveryThreadState == ThreadState::Running) {
        for (auto& entry : availability) {
            char byte;
            os.Lseek(entry.first, 0, SEEK_SET);
            if (os.Read(entry.first, &byte, 1) != 1)
                continue;
            auto seen = lastSeen.find(entry.first);
            if (seen != lastSeen.end() && (seen->second == '0') != (byte == '0'))
                report(entry.second, byte);
            lastSeen[entry.first] = byte;
        }
        fd_set readSet = savedRead, exceptSet = savedExcept;
        const int nfds = std::max({stopPipe, updatePipe, highest}) + 1;
        lock.unlock();
        const int result = os.Select(nfds, &readSet, nullptr, &exceptSet, nullptr);
        const int error = errno;
        lock.lock();
        if (result < 0) {
            if (error == EINTR)
                continue;
            LIBCSI_LOG(TierError, " %s ERROR: Select failed (errno=%d, %s).\n", "discovery_thread_proc", error,
                       std::strerror(error));
            break;
        }
        if (result == 0) {
            LIBCSI_LOG(TierTrace, " %s timeout. Restarting...\n", "discovery_thread_proc");
            continue;
        }
        char sink[10];
        if (FD_ISSET(stopPipe, &readSet)) {
            LIBCSI_LOG(TierTrace, " %s: Stop event occured\n", "discovery_thread_proc");
            (void)!::read(stopPipe, sink, sizeof sink);
            closeAll();
            break;
        }
        if (FD_ISSET(updatePipe, &readSet)) {
            LIBCSI_LOG(TierTrace, " %s: Update device list event occured\n", "discovery_thread_proc");
            (void)!::read(updatePipe, sink, sizeof sink);
            closeAll();
            for (const auto& [sysNode, portID] : library->portMap) {
                int fd = os.Open((sysNode + "/availability").c_str(), O_RDONLY);
                if (fd < 0)
                    continue;
                availability[fd] = portID;
                FD_SET(fd, &savedExcept);
                highest = std::max(highest, fd);
            }
            continue;
        }
        for (const auto& [fd, portID] : availability) {
            if (!FD_ISSET(fd, &exceptSet))
                continue;
            char byte;
            os.Lseek(fd, 0, SEEK_SET);
            if (os.Read(fd, &byte, 1) != 1)
                continue;
            report(portID, byte);
            lastSeen[fd] = byte;
        }
    }
    closeAll();
    library->discoveryThreadState = ThreadState::Stopped;
    library->discoveryCondition.notify_all();
    LIBCSI_LOG(TierTrace, "%s() THREAD ENDED.\n", "discovery_thread_proc");
}

} }

using namespace QEL;
using namespace QEL::LibCSIImpl;

extern "C" {

int32_t libcsi_update_device_list(void)
{
    return Exported(__func__, [&]() -> int32_t {
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        LIBCSI_LOG(TierTrace, "%s()\n", "libcsi_update_device_list");
        auto library = CurrentLibrary();
        if (!library)
            return LIBCSI_NOT_INITIALIZED;
        library->devices.clear();
        for (const std::string& entry : Os::Current().ListDirectory("/sys/class/video4linux/")) {
            if (entry.empty() || entry[0] == '.')
                continue;
            const std::string sysNode = "/sys/class/video4linux/" + entry;
            std::string ifName;
            if (!ReadFile(sysNode + "/if_name", ifName))
                continue;
            ifName = ifName.substr(0, ifName.find('\n'));
            if (ifName.size() < 11 || strncasecmp(ifName.c_str(), "qel_csi2_if", 11) != 0)
                continue;
            auto device = std::make_shared<Device>();
            RegisterDevice(device);
            std::string busInfo;
            ReadFile(sysNode + "/bus_info", busInfo);
            unsigned port = 255, bus = 255, address = 255;
            if (std::sscanf(busInfo.c_str(), "%u:%u:%x", &port, &bus, &address) != 3) {
                LIBCSI_LOG(TierWarning,
                           "  Invalid '%s' content detected. Expected 'i2cportnumber:i2cbusnumber:i2caddress'. Read %s\n",
                           "bus_info", busInfo.c_str());
                continue;
            }
            if (port == 255 || bus == 255 || address == 255) {
                LIBCSI_LOG(TierWarning, "  Invalid I2CPortNumber, I2CBusNumber or I2CAddress detected. Read '%s'\n",
                           busInfo.c_str());
                continue;
            }
            device->i2cPort = static_cast<std::uint8_t>(port);
            device->i2cBus = static_cast<std::uint8_t>(bus);
            device->i2cAddress = static_cast<std::uint8_t>(address);
            device->interfaceName = ifName;
            std::string version;
            if (!ReadSysfs(device->i2cBus, device->i2cAddress, "driver_version", version) ||
                std::sscanf(version.c_str(), "%d.%d.%d.%d", &device->driverVersion[0], &device->driverVersion[1],
                            &device->driverVersion[2], &device->driverVersion[3]) != 4) {
                LIBCSI_LOG(TierWarning, "  WARNING: Failed to retrieve driver version.\n");
                std::fill(std::begin(device->driverVersion), std::end(device->driverVersion), 0);
            }
            char portID[64];
            std::snprintf(portID, sizeof portID, "Port:0x%02X_Bus:0x%02X_Address:0x%02X", port, bus, address);
            device->portID = portID;
            device->devNode = "/dev/" + entry;
            device->sysNode = sysNode;
            library->devices.push_back(device);
        }
        {
            std::lock_guard<std::mutex> lock(library->discoveryMutex);
            library->portMap.clear();
            for (const auto& device : library->devices)
                library->portMap[device->sysNode] = device->portID;
        }
        const std::uint32_t one = 1;
        if (library->updateDeviceListPipe[1] >= 0)
            (void)!::write(library->updateDeviceListPipe[1], &one, sizeof one);
        WriteInfoFile(*library);
        return LIBCSI_OK;
    });
}

int32_t libcsi_get_device_count(uint32_t* pCount)
{
    return Exported(__func__, [&]() -> int32_t {
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        if (!pCount)
            return LIBCSI_INVALID_PARAMETER;
        auto library = CurrentLibrary();
        if (!library)
            return LIBCSI_NOT_INITIALIZED;
        *pCount = static_cast<uint32_t>(library->devices.size());
        return LIBCSI_OK;
    });
}

int32_t libcsi_get_info(uint32_t nDeviceIndex, int32_t eInfoID, int32_t* pType, void* pData, uint64_t* pSize)
{
    return Exported(__func__, [&]() -> int32_t {
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        LIBCSI_LOG(TierTrace, "%s(nDeviceIndex=%u, eInfoID=%s)\n", "libcsi_get_info", nDeviceIndex, InfoName(eInfoID));
        if (!pType || !pSize)
            return LIBCSI_INVALID_PARAMETER;
        std::shared_ptr<Library> library;
        Device* found = nullptr;
        if (int32_t refused = DeviceAt(nDeviceIndex, library, found))
            return refused;
        Device& device = *found;
        std::lock_guard<std::mutex> lock(device.mutex);
        switch (eInfoID) {
        case INFO_Availability: {
            std::string value;
            if (!ReadFile(device.sysNode + "/availability", value) || value.empty()) {
                if (value.empty())
                    LIBCSI_LOG(TierError, "  get_device_availability failed to read path '%s'\n",
                               (device.sysNode + "/availability").c_str());
                LIBCSI_LOG(TierError, " %s ERROR: Cannot retrieve availability.\n", "libcsi_get_info");
                return LIBCSI_READ_FAILED;
            }
            return PutValue<std::uint8_t>(value[0] != '0', LIBCSI_TYPE_BOOL, pType, pData, pSize);
        }
        case INFO_CCIVersionMinor:
        case INFO_CCIVersionMajor: {
            std::string value;
            if (!ReadSysfs(device.i2cBus, device.i2cAddress, "cci_register_layout_version", value)) {
                LIBCSI_LOG(TierError, " %s ERROR: read_sysfs failed.\n", "libcsi_get_info");
                return LIBCSI_READ_FAILED;
            }
            const unsigned long version = std::strtoul(value.c_str(), nullptr, 10);
            const auto half = static_cast<std::uint16_t>(eInfoID == INFO_CCIVersionMajor ? version >> 16 : version);
            return PutValue(half, LIBCSI_TYPE_UINT16, pType, pData, pSize);
        }
        case INFO_PortID:
            return PutString(device.portID, pType, pData, pSize, true);
        default:
            break;
        }
        if (eInfoID < INFO_GenCPModeSupported || eInfoID > INFO_UserDefinedName) {
            LIBCSI_LOG(TierError, " %s ERROR: Invalid InfoID.\n", "libcsi_get_info");
            return LIBCSI_INVALID_PARAMETER;
        }
        std::string capabilitiesText;
        if (!ReadSysfs(device.i2cBus, device.i2cAddress, "device_capabilities", capabilitiesText)) {
            LIBCSI_LOG(TierError, " ERROR: read_sysfs failed. (Node: %s)\n", "device_capabilities");
            return LIBCSI_READ_FAILED;
        }
        const unsigned long long capabilities = std::strtoull(capabilitiesText.c_str(), nullptr, 10);
        if (eInfoID == INFO_GenCPModeSupported)
            return PutValue<std::uint8_t>((capabilities >> 2) & 1, LIBCSI_TYPE_BOOL, pType, pData, pSize);
        static const char* const attributes[] = {"device_guid",       "manufacturer_name", "model_name",
                                                 "family_name",       "device_version",    "manufacturer_info",
                                                 "serial_number",     "user_defined_name"};
        const char* attribute = attributes[eInfoID - INFO_DeviceGUID];
        std::string text;
        if (!ReadSysfs(device.i2cBus, device.i2cAddress, attribute, text)) {
            LIBCSI_LOG(TierError, " ERROR: read_sysfs failed. (Node: %s)\n", attribute);
            return LIBCSI_READ_FAILED;
        }
        const unsigned encoding = (capabilities >> 4) & 0xF;
        if (encoding == 1 || encoding == 2) {
            std::string converted;
            if (!ToLatin1(text, encoding == 1 ? "UTF-8" : "UTF-16LE", converted)) {
                LIBCSI_LOG(TierError, " ERROR while converting string\n");
                *pSize = text.size() + 1;
                return LIBCSI_CONVERSION_FAILED;
            }
            text = converted;
        }
        return PutString(text, pType, pData, pSize, false);
    });
}

}
