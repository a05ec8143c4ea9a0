#include "modules/CSIRemoteDevice.h"
#include "support/SafeFile.h"

#include "framework/BufferRegister.h"
#include "framework/CallbackRegister.h"
#include "framework/XMLDescription.h"
#include "gencp/ControlChannel.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "support/Sha1.h"
#include "support/Allocation.h"

#include <boost/filesystem.hpp>
#include <boost/format.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <new>

namespace QEL { namespace CSI {

using Base::Exception;
namespace fs = boost::filesystem;

namespace {

constexpr std::uint64_t AddressSpaceEnd = std::numeric_limits<std::uint64_t>::max();

std::string HexUpper(const std::vector<std::uint8_t>& bytes)
{
    std::string text;
    char digits[3];
    for (std::uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

// Writes `bytes` to `path` as every file is written: no link followed, no group or world write permission.
void WriteNewFile(const std::string& path, const std::vector<std::uint8_t>& bytes, const char* openFailure,
                  const char* writeFailure)
{
    std::FILE* file = Tools::OpenFileForWriting(path, false);
    if (!file)
        throw Exception(openFailure, GC_ERR_ERROR);
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    if (std::fclose(file) != 0 || !written)
        throw Exception(writeFailure, GC_ERR_ERROR);
}

}

std::shared_ptr<RemoteDevice> RemoteDevice::Create(const std::shared_ptr<Settings>& settings,
                                                   const std::shared_ptr<Base::GenCP::ControlChannel>& controlChannel,
                                                   const std::string& deviceId)
{
    auto remote =
        Tools::MakeShared<RemoteDevice>("Could not allocate remote device.", settings, controlChannel, deviceId);
    remote->Open();
    return remote;
}

RemoteDevice::RemoteDevice(const std::shared_ptr<Settings>& settings,
                           const std::shared_ptr<Base::GenCP::ControlChannel>& controlChannel, const std::string& deviceId)
    : settings(settings), controlChannel(controlChannel), deviceId(deviceId)
{
    if (!settings)
        throw Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
    if (!controlChannel)
        throw Exception("No control channel passed.", GC_ERR_INVALID_PARAMETER);
}

RemoteDevice::~RemoteDevice() { Close(); }

void RemoteDevice::Close()
{
    try {
        if (IsPortInitialized())
            DeinitializePort();
    } catch (...) {
    }
    try {
        ClearPort();
    } catch (...) {
    }
    controlChannel.reset();
    open = false;
}

void RemoteDevice::Open()
{
    QEL::System::SharedMutexGuard guard(controlChannel->GetMutex());
    std::vector<Range> local;
    if (settings->GetRemoteDeviceXML(deviceId))
        AddOverride(local);
    else
        AddFromManifest(local);
    AddDirectAccess(local);
    InitializePort();
    open = true;
}

void RemoteDevice::AddOverride(std::vector<Range>& local)
{
    const std::shared_ptr<XMLFile> xml = settings->GetRemoteDeviceXML(deviceId);
    const std::string fileName =
        xml->IsFile() ? fs::path(xml->GetFileName()).filename().string()
                      : (boost::format("%1%_%2%.xml") % "RemoteDevice" % xml->GetFileVersion().ToString('_')).str();
    const std::uint64_t address = settings->GetRemoteDeviceXMLAddress(deviceId);
    AddXMLDescription(std::make_shared<Base::RegisterXMLDescription>(fileName, address, xml->GetData(),
                                                                     xml->GetSchemaVersion(), xml->GetFileVersion()));
    local.push_back({address, xml->GetData() ? xml->GetData()->size() : 0});
}

void RemoteDevice::AddFromManifest(std::vector<Range>& local)
{
    std::vector<std::shared_ptr<Base::XMLDescription>> descriptions;
    const std::uint64_t count = controlChannel->GetManifestEntryCount();
    for (std::uint64_t index = 0; index < count; ++index) {
        const Base::GenCP::ManifestEntry entry = controlChannel->GetManifestEntry(index);
        const std::string hash = HexUpper(entry.sha1);
        if (entry.fileType > 1)
            throw Exception("Invalid file type detected.", GC_ERR_ERROR);
        const std::string fileName = "RemoteDevice" + (count > 1 ? std::to_string(index) : std::string()) +
                                     (entry.fileType == 0 ? ".xml" : ".zip");
        auto description = Tools::MakeShared<Base::RegisterXMLDescription>(
            "Could not allocate XML description.", fileName, entry.address, entry.size, entry.sha1, entry.schemaVersion,
            entry.fileVersion);
        descriptions.push_back(description);

        // A manifest entry without a hash has no cache name and nothing to check against:
        // it is left to the direct registers.
        Bytes bytes;
        bool fromCache = false;
        if (!entry.sha1.empty()) {
            fromCache = ReadCache(hash, entry.size, entry.sha1, bytes);
            if (!fromCache)
                ReadFromDevice(entry.address, entry.size, entry.sha1, bytes);
        }
        if (!bytes.empty()) {
            if (!fromCache)
                WriteCache(hash, bytes);
            std::shared_ptr<std::uint8_t[]> buffer(new std::uint8_t[bytes.size()]);
            std::copy(bytes.begin(), bytes.end(), buffer.get());
            AddRegister(std::make_shared<Base::BufferRegister>(entry.address, entry.size, buffer, bytes.size(),
                                                               Base::AccessRead));
            local.push_back({entry.address, entry.size});
        }
        if (settings->GetSaveRemoteDeviceXMLFiles()) {
            if (bytes.empty())
                throw Exception("Could not fetch XML file.", GC_ERR_ERROR);
            SaveDebugCopy(fileName, bytes);
        }
    }
    if (descriptions.empty())
        throw Exception("Could not find any XML descriptions.", GC_ERR_ERROR);
    for (const auto& description : descriptions)
        AddXMLDescription(description);
}

bool RemoteDevice::ReadCache(const std::string& hash, std::uint64_t size, const std::vector<std::uint8_t>& sha1,
                             Bytes& bytes)
{
    const fs::path path = fs::path(settings->GetXMLCacheFolder()) / hash;
    std::ifstream file(path.string(), std::ios::binary);
    if (!file)
        return false; // not cached: the ordinary case
    try {
        file.seekg(0, std::ios::end);
        const std::streamoff length = file.tellg();
        if (length < 0 || static_cast<std::uint64_t>(length) != size)
            throw Exception("Invalid file size found", GC_ERR_ERROR);
        file.seekg(0, std::ios::beg);
        Bytes read;
        Tools::Allocating("Could not allocate buffer", [&] { read.resize(size); });
        if (!file.read(reinterpret_cast<char*>(read.data()), static_cast<std::streamsize>(size)))
            throw Exception("Could not read file", GC_ERR_ERROR);
        if (Tools::Sha1Digest(read.data(), read.size()) != sha1)
            throw Exception("Cache file is corrupt", GC_ERR_ERROR);
        bytes.swap(read);
        return true;
    } catch (const Exception& e) {
        Tools::Logger::Log(
            (boost::format("Could not load XML cache file with hash %1% (Reason: %2%)") % hash % e.GetMessage()).str());
    } catch (...) {
        Tools::Logger::Log((boost::format("Could not load XML cache file with hash %1%") % hash).str());
    }
    return false;
}

bool RemoteDevice::ReadFromDevice(std::uint64_t address, std::uint64_t size, const std::vector<std::uint8_t>& sha1,
                                  Bytes& bytes)
{
    try {
        Bytes read;
        Tools::Allocating("Could not allocate buffer", [&] { read.resize(size); });
        for (int attempt = 0; attempt < 3; ++attempt) {
            controlChannel->ReadMemory(address, read.data(), read.size());
            if (Tools::Sha1Digest(read.data(), read.size()) == sha1) {
                bytes.swap(read);
                return true;
            }
        }
        throw Exception("Too many retries", GC_ERR_ERROR);
    } catch (const QEL::System::Exception& e) {
        Tools::Logger::Log((boost::format("Could not load XML file from device (Reason: %1%)") % e.GetMessage()).str());
    } catch (...) {
        Tools::Logger::Log("Could not load XML file from device");
    }
    return false;
}

void RemoteDevice::WriteCache(const std::string& hash, const Bytes& bytes)
{
    try {
        const fs::path folder(settings->GetXMLCacheFolder());
        fs::create_directories(folder);
        WriteNewFile((folder / hash).string(), bytes, "Could not open file for writing.", "Could not write to file.");
    } catch (const QEL::System::Exception& e) {
        Tools::Logger::Log(
            (boost::format("Could not store XML cache file with hash %1% (Reason: %2%)") % hash % e.GetMessage()).str());
    } catch (...) {
        Tools::Logger::Log((boost::format("Could not store XML cache file with hash %1%") % hash).str());
    }
}

void RemoteDevice::SaveDebugCopy(const std::string& fileName, const Bytes& bytes)
{
    const fs::path folder = fs::path(settings->GetDebugFilesFolder()) / deviceId;
    boost::system::error_code error;
    fs::create_directories(folder, error);
    WriteNewFile((folder / fileName).string(), bytes, "Could not open XML description file.",
                 "Could not write to XML description file.");
}

void RemoteDevice::AddDirectAccess(std::vector<Range> local)
{
    std::sort(local.begin(), local.end(), [](const Range& a, const Range& b) { return a.address < b.address; });
    const Range* last = nullptr;
    for (const Range& range : local) {
        if (range.size == 0)
            continue;
        if (!last) {
            if (range.address != 0)
                AddDirectRegister(0, range.address);
        } else {
            const std::uint64_t gap = last->address + last->size;
            if (range.address > gap)
                AddDirectRegister(gap, range.address - gap);
        }
        last = &range;
    }
    if (!last) {
        AddDirectRegister(0, AddressSpaceEnd);
        return;
    }
    const std::uint64_t end = last->address + last->size;
    if (end != 0) // 0: the last range reaches the top of the space
        AddDirectRegister(end, 0 - end); // 2^64 - end
}

void RemoteDevice::AddDirectRegister(std::uint64_t address, std::uint64_t size)
{
    auto reg = Tools::MakeShared<Base::CallbackRegister>("Could not allocate camera direct access register.", address,
                                                         size, Base::AccessReadWrite, true);
    auto check = [](const void* buffer, const std::size_t* size) {
        if (!buffer)
            throw Exception("Direct Register buffer invalid.", GC_ERR_INVALID_PARAMETER);
        if (!size)
            throw Exception("Direct Register size buffer invalid.", GC_ERR_INVALID_PARAMETER);
        if (*size == 0)
            throw Exception("Direct Register size invalid.", GC_ERR_INVALID_PARAMETER);
    };
    RemoteDevice* raw = this;
    auto self = GetShared<RemoteDevice>();
    reg->GetReadSignal().Connect(
        [raw, check](std::uint64_t at, void* buffer, std::size_t* size, Base::CallbackRegister&) {
            check(buffer, size);
            auto channel = raw->controlChannel;
            if (!channel)
                throw Exception("Device not open.", GC_ERR_INVALID_HANDLE);
            QEL::System::SharedMutexGuard guard(channel->GetMutex());
            channel->ReadMemory(at, buffer, *size);
        },
        self);
    reg->GetWriteSignal().Connect(
        [raw, check](std::uint64_t at, const void* buffer, std::size_t* size, Base::CallbackRegister&) {
            check(buffer, size);
            auto channel = raw->controlChannel;
            if (!channel)
                throw Exception("Device not open.", GC_ERR_INVALID_HANDLE);
            QEL::System::SharedMutexGuard guard(channel->GetMutex());
            channel->WriteMemory(at, buffer, *size);
        },
        self);
    AddRegister(reg);
}

Base::InfoPtr RemoteDevice::GetPortInfo(PORT_INFO_CMD command) const
{
    QEL::System::SharedMutexGuard lock(GetMutex());
    if (!open)
        throw Exception("Interface not open.", GC_ERR_INVALID_HANDLE);
    auto channel = controlChannel;
    QEL::System::SharedMutexGuard guard(channel->GetMutex());
    return Tools::Allocating("Could not allocate info.", [&]() -> Base::InfoPtr {
        switch (command) {
        case PORT_INFO_ID:
            return std::make_shared<Base::StringInfo>(deviceId);
        case PORT_INFO_VENDOR:
            return std::make_shared<Base::StringInfo>(channel->GetManufacturerName());
        case PORT_INFO_MODEL:
            return std::make_shared<Base::StringInfo>(channel->GetCapabilityFamilyName()
                                                          ? channel->GetFamilyName() + " " + channel->GetModelName()
                                                          : channel->GetModelName());
        case PORT_INFO_TLTYPE:
            return std::make_shared<Base::StringInfo>("Custom");
        case PORT_INFO_MODULE:
            return std::make_shared<Base::StringInfo>("Device");
        case PORT_INFO_VERSION:
            return std::make_shared<Base::StringInfo>(settings->GetVersion().ToString('.'));
        case PORT_INFO_PORTNAME:
            return std::make_shared<Base::StringInfo>(GetPortName());
        default:
            return RemoteDeviceStack::GetPortInfo(command);
        }
    });
}

} }
