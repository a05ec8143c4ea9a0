#include "support/Settings.h"

#include "base/BaseException.h"
#include "support/EmbeddedDocuments.h"
#include "support/Logger.h"
#include "support/SettingsValues.h"
#include "support/XmlDepth.h"

#include <boost/filesystem.hpp>
#include <tinyxml.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace QEL {

namespace fs = boost::filesystem;

namespace {

std::shared_ptr<XMLFile> EmbeddedDocument(const unsigned char* data, std::size_t size)
{
    return XMLFile::FromMemory(data, size);
}

std::string ElementText(const TiXmlElement& element)
{
    const char* text = element.GetText();
    return text ? text : "";
}

}

// Walks the "Settings" element and fills a Settings object key by key.
class Settings::Reader {
public:
    Reader(Settings& settings, const TiXmlElement& root) : settings(settings), root(root) {}

    void ReadAll()
    {
        ReadDescription("SystemXMLFile", settings.systemXML);
        ReadDescription("InterfaceXMLFile", settings.interfaceXML);
        ReadDescription("DeviceXMLFile", settings.deviceXML);
        ReadRemoteDeviceDescriptions();
        ReadDescription("DataStreamXMLFile", settings.dataStreamXML);
        // An empty log file name asks for no log, rather than a log named like the folder.
        const TiXmlElement* log = Find("LogFileName");
        if (log && !ElementText(*log).empty() && ReadPath("LogFileName", settings.logFileName)) {
            settings.loggingActive = true;
            ReadBool("AppendLog", settings.appendLog);
        }
        settings.mediaLoggingActive = ReadPath("MediaLogFileName", settings.mediaLogFileName);
        ReadBool("TolerateTypeNullptr", settings.tolerateTypeNullptr);
        ReadBool("EmulateAccessModes", settings.emulateAccessModes);
        ReadPath("DebugFilesFolder", settings.debugFilesFolder);
        ReadBool("SaveRemoteDeviceXMLFiles", settings.saveRemoteDeviceXMLFiles);
        ReadNumber("ExtraReceiveTimeout", settings.extraReceiveTimeout);
        ReadBool("EnableEnumeration", settings.enableEnumeration);
        settings.hasEnumerationInterval = ReadNumber("EnumerationInterval", settings.enumerationInterval);
        ReadNumber("SendTimeout", settings.sendTimeout);
        ReadPositive("MaxTransferCount", settings.maxTransferCount, "Invalid maximum transfer count set.");
        ReadPositive("MaxTransferSize", settings.maxTransferSize, "Invalid maximum transfer size set.");
        ReadPositive("MaxTransferCountEventChannel", settings.maxTransferCountEventChannel,
                     "Invalid maximum transfer count for event channel set.");
        ReadPositive("RecordFrameStartFrameID", settings.recordFrameStartFrameID,
                     "Invalid RecordFrameStartFrameID set.");
        ReadPositive("RecordFrameStopFrameID", settings.recordFrameStopFrameID, "Invalid RecordFrameStopFrameID set.");
        ReadPorts();
        ReadNumber("DriverBuffersCount", settings.driverBuffersCount);
        ReadPath("XMLCacheFolder", settings.xmlCacheFolder);
        ReadRegSettings();
    }

private:
    std::string Absolute(const std::string& text) const
    {
        fs::path folder(settings.GetLibraryFolder());
        fs::path given(text);
        return (given.is_absolute() ? given : folder / given).lexically_normal().string();
    }

    bool ReadPath(const char* key, std::string& target) const
    {
        const TiXmlElement* element = Find(key);
        if (!element)
            return false;
        target = Absolute(ElementText(*element));
        return true;
    }

    void ReadBool(const char* key, bool& target) const
    {
        if (const TiXmlElement* element = Find(key))
            target = SettingsValues::ParseBool(ElementText(*element));
    }

    template <class T>
    bool ReadNumber(const char* key, T& target) const
    {
        const TiXmlElement* element = Find(key);
        if (!element)
            return false;
        target = SettingsValues::ParseNumber<T>(ElementText(*element));
        return true;
    }

    template <class T>
    void ReadPositive(const char* key, T& target, const char* message) const
    {
        T value{};
        if (!ReadNumber(key, value))
            return;
        if (value < 1)
            throw Base::Exception(message, GC_ERR_ERROR);
        target = value;
    }

    void ReadDescription(const char* key, std::shared_ptr<XMLFile>& target) const
    {
        std::string file;
        if (!ReadPath(key, file))
            return;
        target = XMLFile::FromFile(file);
        if (!target)
            throw Base::Exception("Could not load xml file.", GC_ERR_ERROR);
    }

    void ReadRemoteDeviceDescriptions() const
    {
        for (const TiXmlElement* element = root.FirstChildElement("RemoteDeviceXMLFile"); element;
             element = element->NextSiblingElement("RemoteDeviceXMLFile")) {
            if (ElementText(*element).empty())
                continue;
            currentElement = "RemoteDeviceXMLFile";
            currentValue = ElementText(*element);
            auto file = XMLFile::FromFile(Absolute(ElementText(*element)));
            if (!file)
                throw Base::Exception("Could not read settings.", GC_ERR_ERROR);
            const char* cameraID = element->Attribute("CameraID");
            if (!cameraID)
                continue;
            if (file->GetSize() == 0)
                throw Base::Exception("Invalid file size of remote device XML file.", GC_ERR_ERROR);
            settings.remoteDeviceXML[cameraID] = file;
            const std::uint64_t top = std::numeric_limits<std::uint64_t>::max() - file->GetSize() + 1;
            settings.remoteDeviceXMLAddress[cameraID] = top;
            for (const TiXmlElement* address = root.FirstChildElement("RemoteDeviceXMLAddress"); address;
                 address = address->NextSiblingElement("RemoteDeviceXMLAddress")) {
                const char* id = address->Attribute("CameraID");
                if (!id || std::string(id) != cameraID)
                    continue;
                auto value = SettingsValues::ParseNumber<std::uint64_t>(ElementText(*address));
                if (value > top)
                    throw Base::Exception("Invalid address specified in settings file.", GC_ERR_ERROR);
                settings.remoteDeviceXMLAddress[cameraID] = value;
            }
        }
    }

    void ReadPorts() const
    {
        const TiXmlElement* portsElement = root.FirstChildElement("Ports");
        if (!portsElement)
            return;
        for (const TiXmlElement* port = portsElement->FirstChildElement("Port"); port;
             port = port->NextSiblingElement("Port")) {
            currentElement = "Ports/Port";
            currentValue = port->Attribute("ID") ? port->Attribute("ID") : "";
            const char* id = port->Attribute("ID");
            if (!id)
                throw Base::Exception("Could not get port ID.", GC_ERR_ERROR);
            if (*id == '\0')
                throw Base::Exception("Invalid port ID found.", GC_ERR_ERROR);
            std::optional<std::uint8_t> lanes;
            std::optional<std::uint32_t> clock;
            if (const TiXmlElement* element = port->FirstChildElement("CSILaneCount"))
                lanes = SettingsValues::ParseNumber<std::uint8_t>(ElementText(*element));
            if (const TiXmlElement* element = port->FirstChildElement("CSIClockFrequency"))
                clock = SettingsValues::ParseNumber<std::uint32_t>(ElementText(*element));
            if (!lanes && !clock)
                continue;
            if (settings.ports.count(id) != 0)
                throw Base::Exception("Duplicate port settings found.", GC_ERR_ERROR);
            settings.ports.emplace(id, PortSettings(lanes, clock));
        }
    }

    void ReadRegSettings() const
    {
        const TiXmlElement* asic = root.FirstChildElement("ASIC");
        if (!asic)
            return;
        for (const TiXmlElement* write = asic->FirstChildElement("RegWrite"); write;
             write = write->NextSiblingElement("RegWrite")) {
            const char* address = write->Attribute("Address");
            const char* name = write->Attribute("Name");
            const char* text = write->GetText();
            if (!address || !name || !text)
                continue;
            RegSetting setting;
            setting.address = static_cast<std::uint32_t>(std::strtol(address, nullptr, 16));
            setting.value = static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
            setting.name = name;
            settings.regSettings.push_back(setting);
        }
    }

public:
    // The element read last, and its text: what a failure is about.
    mutable std::string currentElement, currentValue;

private:
    const TiXmlElement* Find(const char* key) const
    {
        const TiXmlElement* element = root.FirstChildElement(key);
        currentElement = key;
        currentValue = element ? ElementText(*element) : "";
        return element;
    }

    Settings& settings;
    const TiXmlElement& root;
};

Settings::Settings(std::string libraryPath)
    : path(std::move(libraryPath)),
      systemXML(EmbeddedDocument(Embedded::SystemXML, Embedded::SystemXML_size)),
      interfaceXML(EmbeddedDocument(Embedded::InterfaceXML, Embedded::InterfaceXML_size)),
      deviceXML(EmbeddedDocument(Embedded::DeviceXML, Embedded::DeviceXML_size)),
      dataStreamXML(EmbeddedDocument(Embedded::DataStreamXML, Embedded::DataStreamXML_size)),
      debugFilesFolder(GetLibraryFolder())
{
}

std::string Settings::GetLibraryFolder() const { return fs::path(path).parent_path().lexically_normal().string(); }

std::string Settings::SettingsPathFor(const std::string& libraryPath)
{
    fs::path library(libraryPath);
    return (library.parent_path() / library.stem()).lexically_normal().string() + ".xml";
}

namespace {

// Why the settings keep the library from initialising: before the system log
// exists, standard error is the only place a user can see it.
void Report(const std::string& text)
{
    std::fprintf(stderr, "%s\n", text.c_str());
    Tools::Logger::Log(text);
}

}

std::shared_ptr<Settings> Settings::Load(const std::string& libraryPath)
{
    auto settings = std::make_shared<Settings>(libraryPath);
    const std::string path = SettingsPathFor(libraryPath);
    boost::system::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (error || !fs::exists(status))
        return settings;
    // A FIFO would block the reader, a device or a huge file swell it.
    if (!fs::is_regular_file(status) || fs::file_size(path, error) > (16u << 20) || error) {
        Report("Settings file '" + path + "': not a regular file of at most 16 MiB, refused.");
        throw Base::Exception("Could not read TL settings.", GC_ERR_ERROR);
    }
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return settings;
    std::ostringstream content;
    content << file.rdbuf();
    const std::string text = content.str();
    if (!Tools::IsXmlDepthSane(text)) {
        Report("Settings file '" + path + "': nested deeper than " + std::to_string(Tools::MaxXmlDepth) +
               " levels, refused.");
        throw Base::Exception("Could not read TL settings.", GC_ERR_ERROR);
    }
    TiXmlDocument document;
    document.Parse(text.c_str());
    if (document.Error())
        return settings;
    const TiXmlElement* root = document.FirstChildElement("Settings");
    if (!root) {
        Report("Settings file '" + path + "': the root element is not <Settings>.");
        throw Base::Exception("Could not read TL settings.", GC_ERR_ERROR);
    }
    Reader reader(*settings, *root);
    try {
        reader.ReadAll();
    } catch (const Base::Exception& e) {
        Report("Settings file '" + path + "', element <" + reader.currentElement + ">, value '" +
               reader.currentValue + "': " + e.GetText());
        throw;
    }
    return settings;
}

std::shared_ptr<XMLFile> Settings::GetRemoteDeviceXML(const std::string& cameraID) const
{
    auto it = remoteDeviceXML.find(cameraID);
    return it == remoteDeviceXML.end() ? nullptr : it->second;
}

std::uint64_t Settings::GetRemoteDeviceXMLAddress(const std::string& cameraID) const
{
    auto it = remoteDeviceXMLAddress.find(cameraID);
    if (it == remoteDeviceXMLAddress.end())
        throw Base::Exception("No remote device xml set.", GC_ERR_ERROR);
    return it->second;
}

const std::string& Settings::GetLogFileName() const
{
    if (!loggingActive)
        throw Base::Exception("Logging not active.", GC_ERR_ERROR);
    return logFileName;
}

bool Settings::GetAppendLog() const
{
    if (!loggingActive)
        throw Base::Exception("Logging not active.", GC_ERR_ERROR);
    return appendLog;
}

std::uint32_t Settings::GetEnumerationInterval() const
{
    if (!hasEnumerationInterval)
        throw Base::Exception("No enumeration interval available.", GC_ERR_ERROR);
    return enumerationInterval;
}

std::uint32_t Settings::GetMaxTransferCount() const
{
    if (maxTransferCount == 0)
        throw Base::Exception("No maximum transfer count available.", GC_ERR_ERROR);
    return maxTransferCount;
}

std::uint32_t Settings::GetMaxTransferSize() const
{
    if (maxTransferSize == 0)
        throw Base::Exception("No maximum transfer size available.", GC_ERR_ERROR);
    return maxTransferSize;
}

}
