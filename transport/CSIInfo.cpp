#include "transport/CSIInfo.h"

#include "transport/LibCSILibrary.h"
#include "transport/LibCSIWrapper_Impl.h"

#include <vector>

namespace QEL { namespace LibCSI {

namespace {

const char* const ValueNames[] = {"INFO_Availability", "INFO_CCIVersionMinor", "INFO_CCIVersionMajor",
                                  "INFO_GenCPModeSupported"};

}

CSIInfo::CSIInfo(const std::shared_ptr<LibCSIWrapper_Impl>& wrapper, std::int32_t deviceIndex)
    : wrapper(wrapper), deviceIndex(deviceIndex)
{
    for (std::int32_t id = INFO_DeviceGUID; id <= INFO_PortID; ++id)
        strings[id];
}

bool CSIInfo::IsValid(InfoID id) const
{
    auto it = obtained.find(id);
    return it != obtained.end() && it->second;
}

void CSIInfo::Init()
{
    auto libcsi = wrapper.lock();
    if (!libcsi)
        return;
    const auto index = static_cast<std::uint32_t>(deviceIndex);
    std::uint16_t cciMinor = 0, cciMajor = 0;
    for (std::int32_t id = INFO_Availability; id <= INFO_GenCPModeSupported; ++id) {
        std::uint16_t value = 0;
        std::int32_t type = -1;
        std::uint64_t size = sizeof value;
        const bool twoBytes = id == INFO_CCIVersionMinor || id == INFO_CCIVersionMajor;
        const std::int32_t result =
            libcsi->GetInfo(index, id, &type, &value, &size, std::string("libcsi_get_info ") + ValueNames[id]);
        const std::int32_t expected = twoBytes ? LIBCSI_TYPE_UINT16 : LIBCSI_TYPE_BOOL;
        obtained[id] = result == 0 && type == expected;
        if (result != 0)
            continue;
        // A boolean is one byte; the rest of `value` stays 0.
        const std::uint16_t read = twoBytes ? value : static_cast<std::uint16_t>(value & 0xFF);
        switch (id) {
        case INFO_Availability: availability = static_cast<std::uint8_t>(read != 0); break;
        case INFO_CCIVersionMinor: cciMinor = read; break;
        case INFO_CCIVersionMajor: cciMajor = read; break;
        default: genCPModeSupported = read != 0; break;
        }
    }
    cciVersion = Tools::Version(cciMajor, cciMinor);
    for (std::int32_t id = INFO_DeviceGUID; id <= INFO_PortID; ++id) {
        const std::string callName = "libcsi_get_info " + std::to_string(id);
        std::int32_t type = -1;
        std::uint64_t size = 0;
        obtained[id] = false;
        if (libcsi->GetInfo(index, id, &type, nullptr, &size, callName) != 0)
            continue;
        std::vector<char> text(size + 1, 0);
        if (libcsi->GetInfo(index, id, &type, text.data(), &size, callName) != 0)
            continue;
        strings[id] = text.data();
        obtained[id] = type == LIBCSI_TYPE_STRING;
    }
    Library::MediaLogFormat("CSITL::CSILibrary::CSIInfo::Init(): DeviceIndex=%d", deviceIndex);
    Library::MediaLogFormat("  INFO_Availability=%d (Availability=%d)", availability, IsValid(INFO_Availability));
    Library::MediaLogFormat("  INFO_CCIVersionMinor=%d (Availability=%d)", cciMinor, IsValid(INFO_CCIVersionMinor));
    Library::MediaLogFormat("  INFO_CCIVersionMajor=%d (Availability=%d)", cciMajor, IsValid(INFO_CCIVersionMajor));
    Library::MediaLogFormat("  INFO_GenCPModeSupported=%d (Availability=%d)", genCPModeSupported,
                            IsValid(INFO_GenCPModeSupported));
    static const std::pair<InfoID, const char*> textLines[] = {
        {INFO_DeviceGUID, "  INFO_DeviceGUID=%s (Availability=%d)"},
        {INFO_PortID, "  INFO_PortID=%s (Availability=%d)"},
        {INFO_ManufacturerName, "  INFO_ManufacturerName=%s (Availability=%d)"},
        {INFO_ModelName, "  INFO_ModelName=%s (Availability=%d)"},
        {INFO_FamilyName, "  INFO_FamilyName=%s (Availability=%d)"},
        {INFO_UserDefinedName, "  INFO_UserDefinedName=%s (Availability=%d)"},
        {INFO_DeviceVersion, "  INFO_DeviceVersion=%s (Availability=%d)"},
        {INFO_ManufacturerInfo, "  INFO_ManufacturerInfo=%s (Availability=%d)"},
        {INFO_SerialNumber, "  INFO_SerialNumber=%s (Availability=%d)"},
    };
    for (const auto& line : textLines)
        Library::MediaLogFormat(line.second, strings[line.first].c_str(), IsValid(line.first));
}

} }
