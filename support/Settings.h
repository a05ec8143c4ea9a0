#pragma once

#include "base/Object.h"
#include "support/PortSettings.h"
#include "support/Version.h"
#include "support/XMLFile.h"

#include "Versions.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace QEL {

// What the settings file beside the library says, with its defaults.
class Settings : public virtual System::Object {
public:
    explicit Settings(std::string libraryPath);
    Settings(const Settings&) = default;

    // Reads the settings file beside the library; a missing or malformed file
    // gives the defaults, a well-formed file with a bad value throws.
    static std::shared_ptr<Settings> Load(const std::string& libraryPath);
    static std::string SettingsPathFor(const std::string& libraryPath);

    const std::string& GetPath() const { return path; }
    std::string GetLibraryFolder() const;
    const std::shared_ptr<XMLFile>& GetSystemXML() const { return systemXML; }
    const std::shared_ptr<XMLFile>& GetInterfaceXML() const { return interfaceXML; }
    const std::shared_ptr<XMLFile>& GetDeviceXML() const { return deviceXML; }
    const std::shared_ptr<XMLFile>& GetDataStreamXML() const { return dataStreamXML; }
    const std::map<std::string, std::shared_ptr<XMLFile>>& GetRemoteDeviceXMLs() const { return remoteDeviceXML; }
    std::shared_ptr<XMLFile> GetRemoteDeviceXML(const std::string& cameraID) const;
    std::uint64_t GetRemoteDeviceXMLAddress(const std::string& cameraID) const;

    bool IsLoggingActive() const { return loggingActive; }
    const std::string& GetLogFileName() const;
    bool GetAppendLog() const;
    bool IsMediaLoggingActive() const { return mediaLoggingActive; }
    const std::string& GetMediaLogFileName() const { return mediaLogFileName; }
    const Tools::Version& GetVersion() const { return version; }
    bool GetTolerateTypeNullptr() const { return tolerateTypeNullptr; }
    bool GetEmulateAccessModes() const { return emulateAccessModes; }
    const std::string& GetDebugFilesFolder() const { return debugFilesFolder; }
    bool GetSaveRemoteDeviceXMLFiles() const { return saveRemoteDeviceXMLFiles; }
    std::uint32_t GetExtraReceiveTimeout() const { return extraReceiveTimeout; }
    bool GetEnableEnumeration() const { return enableEnumeration; }
    bool HasEnumerationInterval() const { return hasEnumerationInterval; }
    std::uint32_t GetEnumerationInterval() const;
    std::uint32_t GetSendTimeout() const { return sendTimeout; }
    bool HasMaxTransferCount() const { return maxTransferCount != 0; }
    std::uint32_t GetMaxTransferCount() const;
    bool HasMaxTransferSize() const { return maxTransferSize != 0; }
    std::uint32_t GetMaxTransferSize() const;
    std::uint32_t GetMaxTransferCountEventChannel() const { return maxTransferCountEventChannel; }
    std::int32_t GetRecordFrameStartFrameID() const { return recordFrameStartFrameID; }
    std::int32_t GetRecordFrameStopFrameID() const { return recordFrameStopFrameID; }
    bool GetDynamicBufferHandling() const { return dynamicBufferHandling; }
    void SetDynamicBufferHandling(bool value) { dynamicBufferHandling = value; }
    std::uint32_t GetDriverBuffersCount() const { return driverBuffersCount; }
    const std::map<std::string, PortSettings>& GetPorts() const { return ports; }
    const std::string& GetXMLCacheFolder() const { return xmlCacheFolder; }
    const std::vector<RegSetting>& GetRegSettings() const { return regSettings; }

private:
    class Reader;

    std::string path;
    std::shared_ptr<XMLFile> systemXML;
    std::shared_ptr<XMLFile> interfaceXML;
    std::shared_ptr<XMLFile> deviceXML;
    std::map<std::string, std::shared_ptr<XMLFile>> remoteDeviceXML;
    std::map<std::string, std::uint64_t> remoteDeviceXMLAddress;
    std::shared_ptr<XMLFile> dataStreamXML;
    bool loggingActive = false;
    bool mediaLoggingActive = false;
    bool appendLog = false;
    std::string logFileName;
    std::string mediaLogFileName;
    Tools::Version version{LORUN_PRODUCER_VERSION_MAJOR, LORUN_PRODUCER_VERSION_MINOR, LORUN_PRODUCER_VERSION_PATCH};
    bool tolerateTypeNullptr = false;
    bool emulateAccessModes = false;
    std::string debugFilesFolder;
    bool saveRemoteDeviceXMLFiles = false;
    std::uint32_t extraReceiveTimeout = 50;
    bool enableEnumeration = false;
    bool hasEnumerationInterval = false;
    std::uint32_t enumerationInterval = 0;
    std::uint32_t sendTimeout = 1000;
    std::uint32_t maxTransferCount = 0;
    std::uint32_t maxTransferSize = 0;
    std::uint32_t maxTransferCountEventChannel = 4;
    std::int32_t recordFrameStartFrameID = -1;
    std::int32_t recordFrameStopFrameID = -1;
    bool dynamicBufferHandling = false;
    std::uint32_t driverBuffersCount = 0;
    std::map<std::string, PortSettings> ports;
    std::string xmlCacheFolder;
    std::vector<RegSetting> regSettings;
};

}
