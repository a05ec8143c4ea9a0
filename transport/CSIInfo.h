#pragma once

#include "libcsi/include/libcsi/libcsi.h"
#include "base/Object.h"
#include "support/Version.h"


#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace QEL { namespace LibCSI {

class LibCSIWrapper_Impl;

// Info IDs of libcsi_get_info, as libcsi names them.
using InfoID = libcsi_info_id;

// A snapshot of one camera's identity as libcsi reports it.
class CSIInfo : public virtual System::Object, public std::enable_shared_from_this<CSIInfo> {
public:
    CSIInfo(const std::shared_ptr<LibCSIWrapper_Impl>& wrapper, std::int32_t deviceIndex);
    ~CSIInfo() override = default;

    // Reads every value; a value libcsi cannot give stays empty and is marked so.
    void Init();

    // Whether the info was obtained with the type it should have.
    bool IsValid(InfoID id) const;
    std::int32_t GetDeviceIndex() const { return deviceIndex; }
    std::uint8_t GetAvailability() const { return availability; }
    const Tools::Version& GetCCIVersion() const { return cciVersion; }
    bool IsGenCPModeSupported() const { return genCPModeSupported; }
    const std::string& GetDeviceGuid() const { return strings.at(INFO_DeviceGUID); }
    const std::string& GetManufacturerName() const { return strings.at(INFO_ManufacturerName); }
    const std::string& GetModelName() const { return strings.at(INFO_ModelName); }
    const std::string& GetFamilyName() const { return strings.at(INFO_FamilyName); }
    const std::string& GetDeviceVersion() const { return strings.at(INFO_DeviceVersion); }
    const std::string& GetManufacturerInfo() const { return strings.at(INFO_ManufacturerInfo); }
    const std::string& GetSerialNumber() const { return strings.at(INFO_SerialNumber); }
    const std::string& GetUserDefinedName() const { return strings.at(INFO_UserDefinedName); }
    const std::string& GetPortID() const { return strings.at(INFO_PortID); }

private:
    // Weak: the wrapper keeps the table of infos, which would keep it alive.
    std::weak_ptr<LibCSIWrapper_Impl> wrapper;
    std::map<std::int32_t, bool> obtained;
    std::int32_t deviceIndex;
    std::uint8_t availability = 0;
    Tools::Version cciVersion{std::uint64_t{0}, std::uint64_t{0}};
    bool genCPModeSupported = false;
    std::map<std::int32_t, std::string> strings;
};

} }
