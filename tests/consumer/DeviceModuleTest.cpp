// IFOpenDevice, the Device module and the remote device through the built
// producer, on the virtual camera.
#include "sim/CameraMap.h"
#include "tests/consumer/ProducerLoader.h"
#include "tests/sim/CameraControl.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

// Types of the exported functions, as a consumer's header declares them.
#define LORUN_FN(name) producer.Symbol<decltype(&::name)>(#name)

class DeviceFamily : public ::testing::Test {
protected:
    static std::string NewCacheFolder()
    {
        return (fs::temp_directory_path() / fs::unique_path("lorun-cache-%%%%-%%%%")).string();
    }

    // `files` are written beside the producer before it starts.
    explicit DeviceFamily(const std::string& settings = "", const std::string& camera = "",
                          const std::map<std::string, std::string>& files = {},
                          const std::string& cache = NewCacheFolder())
        : producer("<Settings><LogFileName>lorun.log</LogFileName><XMLCacheFolder>" + cache + "</XMLCacheFolder>" +
                   settings + "</Settings>")
    {
        std::ofstream(producer.File("cameras.ini"))
            << "[system]\ncontrol = control.txt\n"
            << "[camera0]\nguid = CAM-1\nserial_number = SN-1\nbus_timing = 0\nwidth = 64\nheight = 16\n" << camera;
        for (const auto& [name, text] : files)
            std::ofstream(producer.File(name)) << text;
        setenv("LORUN_VIRTUAL_CAMERA", producer.File("cameras.ini").c_str(), 1);
        EXPECT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(TLOpen)(&tl));
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(TLOpenInterface)(tl, "LorunCSIInterface_0x0", &interface));
        bool8_t changed = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFUpdateDeviceList)(interface, &changed, 100));
        cacheFolder = CacheFolder();
    }
    ~DeviceFamily() override
    {
        producer.GCCloseLib();
        unsetenv("LORUN_VIRTUAL_CAMERA");
        boost::system::error_code ignored;
        fs::remove_all(cacheFolder, ignored);
    }

    std::string CacheFolder()
    {
        std::ifstream settings(producer.File("lorun_csi2.xml"));
        const std::string text((std::istreambuf_iterator<char>(settings)), std::istreambuf_iterator<char>());
        std::smatch match;
        std::regex_search(text, match, std::regex("<XMLCacheFolder>([^<]*)</XMLCacheFolder>"));
        return match[1];
    }

    DEV_HANDLE Open(DEVICE_ACCESS_FLAGS flags)
    {
        DEV_HANDLE device = nullptr;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-1", flags, &device))
            << producer.LastError().second;
        return device;
    }

    PORT_HANDLE RemotePort(DEV_HANDLE device)
    {
        PORT_HANDLE port = nullptr;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &port));
        return port;
    }

    std::string ReadText(PORT_HANDLE port, std::uint64_t address, std::size_t length)
    {
        std::vector<char> text(length + 1, 0);
        size_t size = length;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(port, address, text.data(), &size))
            << producer.LastError().second;
        return std::string(text.data());
    }

    std::uint32_t Read32(PORT_HANDLE port, std::uint64_t address)
    {
        std::uint32_t value = 0;
        size_t size = sizeof value;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(port, address, &value, &size)) << producer.LastError().second;
        return value;
    }

    // The camera's document through the remote port, where its URL says it lies:
    // "local:<file name>;<hex address>;<hex length>[?...]".
    std::string RemoteDocument(PORT_HANDLE port, std::uint32_t index = 0, std::string* name = nullptr)
    {
        char url[512] = {};
        size_t size = sizeof url;
        INFO_DATATYPE type = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCGetPortURLInfo)(port, index, URL_INFO_URL, &type, url, &size))
            << producer.LastError().second;
        std::cmatch match;
        EXPECT_TRUE(std::regex_search(url, match, std::regex("^local:(///)?[^;]+;([0-9A-Fa-f]+);([0-9A-Fa-f]+)")))
            << url;
        if (name)
            *name = std::regex_replace(std::string(match[0]), std::regex("^local:(///)?([^;]+);.*"), "$2");
        const std::uint64_t address = std::stoull(match[2], nullptr, 16);
        const std::uint64_t length = std::stoull(match[3], nullptr, 16);
        std::string document(length, '\0');
        size = length;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(port, address, document.data(), &size));
        return document;
    }

    std::vector<fs::path> CacheFiles() const
    {
        std::vector<fs::path> files;
        if (fs::is_directory(cacheFolder))
            for (const auto& entry : fs::directory_iterator(cacheFolder))
                files.push_back(entry.path());
        return files;
    }

    // Bytes of its documents the camera has sent over its control bus.
    std::uint64_t DocumentBytesSent()
    {
        const auto counters = CameraControl(producer.File("control.txt")).Report("camera0");
        EXPECT_EQ(1u, counters.count("document_bytes_read")) << "the camera's report";
        return counters.count("document_bytes_read") ? counters.at("document_bytes_read") : 0;
    }

    std::string Log() const { return ReadFile(producer.File("lorun.log")); }

    ProducerLoader producer;
    TL_HANDLE tl = nullptr;
    IF_HANDLE interface = nullptr;
    std::string cacheFolder;
};

TEST_F(DeviceFamily, OpenFlagsAndTheRulesOfOneOpen)
{
    DEV_HANDLE device = nullptr;
    for (DEVICE_ACCESS_FLAGS flags : {0, 1}) {
        EXPECT_EQ(GC_ERR_INVALID_PARAMETER, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-1", flags, &device));
        EXPECT_EQ("Invalid open flag.", producer.LastError().second);
    }
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-1", 1000, &device));
    EXPECT_EQ("Unsupported open flag.", producer.LastError().second);

    for (DEVICE_ACCESS_FLAGS flags : {DEVICE_ACCESS_CONTROL, DEVICE_ACCESS_EXCLUSIVE, DEVICE_ACCESS_READONLY}) {
        device = Open(flags);
        ASSERT_NE(nullptr, device);
        DEV_HANDLE second = nullptr;
        EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(IFOpenDevice)(interface, "SN-1", DEVICE_ACCESS_CONTROL, &second))
            << "by its serial number too";
        EXPECT_EQ("The requested device is already open.", producer.LastError().second);

        const bool readOnly = flags == DEVICE_ACCESS_READONLY;
        std::int32_t status = 0;
        INFO_DATATYPE type = 0;
        size_t size = sizeof status;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetInfo)(device, DEVICE_INFO_ACCESS_STATUS, &type, &status, &size));
        EXPECT_EQ(readOnly ? DEVICE_ACCESS_STATUS_OPEN_READONLY : DEVICE_ACCESS_STATUS_OPEN_READWRITE, status);
        bool8_t writable = 1;
        size = sizeof writable;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCGetPortInfo)(device, PORT_INFO_ACCESS_WRITE, &type, &writable, &size));
        EXPECT_EQ(readOnly ? 0 : 1, writable);
        uint32_t streams = 9;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetNumDataStreams)(device, &streams));
        EXPECT_EQ(readOnly ? 0u : 1u, streams);
        EXPECT_EQ(readOnly ? 0u : 1u, Read32(device, 0x1060000)) << "StreamCount";

        // The camera refuses writes to a read-only opener, and takes them otherwise.
        PORT_HANDLE remote = RemotePort(device);
        const std::uint32_t width = 48;
        size = sizeof width;
        const GC_ERROR written = LORUN_FN(GCWritePort)(remote, QEL::Sim::CameraMap::Width, &width, &size);
        EXPECT_EQ(readOnly, written != GC_ERR_SUCCESS);
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    }
    EXPECT_NE(nullptr, Open(DEVICE_ACCESS_CONTROL)) << "closed devices can be opened again";
}

TEST_F(DeviceFamily, DeviceInfoAndRegisters)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    auto info = [&](DEVICE_INFO_CMD command) {
        INFO_DATATYPE type = 0;
        size_t size = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetInfo)(device, command, &type, nullptr, &size));
        std::vector<char> text(size);
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetInfo)(device, command, &type, text.data(), &size));
        return std::string(text.data());
    };
    EXPECT_EQ("DEV_CAM-1", info(DEVICE_INFO_ID));
    EXPECT_EQ("SN-1", info(DEVICE_INFO_SERIAL_NUMBER));
    EXPECT_EQ("Custom", info(DEVICE_INFO_TLTYPE));
    EXPECT_EQ(info(DEVICE_INFO_VENDOR) + " " + info(DEVICE_INFO_MODEL), info(DEVICE_INFO_DISPLAYNAME));
    EXPECT_EQ("DEV_CAM-1", ReadText(device, 0x1000000, 256));
    EXPECT_EQ(info(DEVICE_INFO_VENDOR), ReadText(device, 0x1020000, 64));
    EXPECT_EQ("DEV_CAM-1_DS_0x0", ReadText(device, 0x1070000, 256));
    EXPECT_EQ(3u, Read32(device, 0x1090000)) << "driver path and location present";
    EXPECT_EQ("CAM-1", ReadText(device, 0x10A0000, 1024)) << "the camera's key";
    EXPECT_EQ("1.1.0.0", ReadText(device, 0x10E0000, 16)) << "libcsi's version";
    EXPECT_NE(0u, Read32(device, 0x10F0000)) << "lane count";
    EXPECT_NE(0u, Read32(device, 0x1120000)) << "packet size";

    char id[64] = {};
    size_t size = sizeof id;
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetDataStreamID)(device, 0, id, &size));
    EXPECT_STREQ("DEV_CAM-1_DS_0x0", id);
    size = sizeof id;
    EXPECT_EQ(GC_ERR_INVALID_INDEX, LORUN_FN(DevGetDataStreamID)(device, 1, id, &size));
    IF_HANDLE parent = nullptr;
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetParentIF)(device, &parent));
    EXPECT_EQ(interface, parent);
}

TEST_F(DeviceFamily, TheCamerasDocumentComesFromTheCameraThenFromTheCache)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    PORT_HANDLE remote = RemotePort(device);
    EXPECT_EQ("Virtual CSI-2 Camera", ReadText(remote, 0x0044, 64)) << "the camera's bootstrap registers, direct";
    const std::string document = RemoteDocument(remote);
    EXPECT_NE(std::string::npos, document.find("<RegisterDescription")) << document.substr(0, 200);
    auto files = CacheFiles();
    ASSERT_EQ(1u, files.size());
    EXPECT_TRUE(std::regex_match(files[0].filename().string(), std::regex("[0-9A-F]{40}")));
    EXPECT_EQ(document, ReadFile(files[0].string()));

    // A cache file with one byte changed is noticed, logged and written anew.
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    {
        std::fstream file(files[0].string(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(10);
        file.put('#');
    }
    device = Open(DEVICE_ACCESS_CONTROL);
    EXPECT_EQ(document, RemoteDocument(RemotePort(device)));
    EXPECT_EQ(document, ReadFile(files[0].string())) << "replaced";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    const std::string log = ReadFile(producer.File("lorun.log"));
    const auto logged = log.find("Could not load XML cache file with hash ");
    ASSERT_NE(std::string::npos, logged) << log;
    EXPECT_NE(std::string::npos, log.find("Cache file is corrupt", logged)) << log.substr(logged, 200);

    // From the cache now: the same document.
    device = Open(DEVICE_ACCESS_READONLY);
    EXPECT_EQ(document, RemoteDocument(RemotePort(device)));
}

// What the cache saves is the document's transfer over the slow control bus.
TEST_F(DeviceFamily, ACacheHitReadsNothingOfTheDocumentFromTheCamera)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    const std::string document = RemoteDocument(RemotePort(device));
    const std::uint64_t size = document.size();
    EXPECT_EQ(size, DocumentBytesSent()) << "fetched once at the opening; the consumer's read came from memory";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));

    device = Open(DEVICE_ACCESS_CONTROL);
    EXPECT_EQ(document, RemoteDocument(RemotePort(device)));
    EXPECT_EQ(size, DocumentBytesSent()) << "a cache hit";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));

    // A cache file cut short is passed over, logged, and written anew.
    const auto files = CacheFiles();
    ASSERT_EQ(1u, files.size());
    fs::resize_file(files[0], size - 1);
    device = Open(DEVICE_ACCESS_CONTROL);
    EXPECT_EQ(document, RemoteDocument(RemotePort(device)));
    EXPECT_EQ(2 * size, DocumentBytesSent()) << "read from the camera again";
    EXPECT_EQ(document, ReadFile(files[0].string())) << "replaced";
    EXPECT_NE(std::string::npos, Log().find("Could not load XML cache file with hash " + files[0].filename().string() +
                                            " (Reason: Invalid file size found"));
}

// A document whose transfer fails its SHA-1 is read again, three times at
// most; after three failures the device opens all the same, nothing is
// cached, and the consumer's reads of the document go to the camera.
TEST_F(DeviceFamily, ADocumentFailingItsHashIsReadAgainThriceAtMost)
{
    ASSERT_TRUE(CameraControl(producer.File("control.txt")).Command("fault camera0 DocumentCorrupt 2"));
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    const std::uint64_t threeReads = DocumentBytesSent();
    const std::string document = RemoteDocument(RemotePort(device));
    const std::uint64_t size = document.size();
    EXPECT_EQ(3 * size, threeReads) << "two spoilt transfers and a good one";
    EXPECT_EQ(threeReads, DocumentBytesSent()) << "the third one is served from memory";
    ASSERT_EQ(1u, CacheFiles().size());
    EXPECT_EQ(document, ReadFile(CacheFiles()[0].string()));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    fs::remove(CacheFiles()[0]);

    ASSERT_TRUE(CameraControl(producer.File("control.txt")).Command("fault camera0 DocumentCorrupt 3"));
    device = Open(DEVICE_ACCESS_CONTROL);
    EXPECT_EQ(threeReads + 3 * size, DocumentBytesSent());
    EXPECT_NE(std::string::npos, Log().find("Could not load XML file from device (Reason: Too many retries"));
    EXPECT_TRUE(CacheFiles().empty()) << "nothing verified, nothing cached";
    EXPECT_EQ(document, RemoteDocument(RemotePort(device))) << "straight from the camera, whose fault is used up";
    EXPECT_EQ(threeReads + 4 * size, DocumentBytesSent());
}

// A cache folder that cannot be created: the opening goes on, and the
// document, verified, is served from memory while the device stays open.
class DeviceWithUnwritableCache : public DeviceFamily {
protected:
    DeviceWithUnwritableCache() : DeviceFamily("", "", {}, BlockedFolder()) {}
    ~DeviceWithUnwritableCache() override
    {
        boost::system::error_code ignored;
        fs::remove(fs::path(cacheFolder).parent_path(), ignored);
    }

    // A folder whose parent is a regular file: not even root can create it.
    static std::string BlockedFolder()
    {
        const std::string file = NewCacheFolder();
        std::ofstream(file) << "not a folder\n";
        return file + "/cache";
    }
};

TEST_F(DeviceWithUnwritableCache, TheDocumentIsServedFromMemory)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    const std::string document = RemoteDocument(RemotePort(device));
    EXPECT_NE(std::string::npos, document.find("<RegisterDescription"));
    EXPECT_EQ(document.size(), DocumentBytesSent()) << "read once, at the opening";
    EXPECT_NE(std::string::npos, Log().find("Could not store XML cache file with hash "));
    EXPECT_FALSE(fs::exists(cacheFolder));
}

// A camera whose manifest lists three documents, saved for debugging on opening.
class DeviceWithThreeDocuments : public DeviceFamily {
protected:
    DeviceWithThreeDocuments()
        : DeviceFamily("<SaveRemoteDeviceXMLFiles>true</SaveRemoteDeviceXMLFiles><DebugFilesFolder>debug"
                       "</DebugFilesFolder>",
                       "manifest_entries = 3\n")
    {
    }
};

TEST_F(DeviceWithThreeDocuments, EachManifestEntryIsADescriptionAndASavedFile)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    PORT_HANDLE remote = RemotePort(device);
    uint32_t urls = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCGetNumPortURLs)(remote, &urls));
    ASSERT_EQ(3u, urls);
    std::set<std::string> documents;
    for (std::uint32_t i = 0; i < 3; ++i) {
        std::string name;
        const std::string document = RemoteDocument(remote, i, &name);
        EXPECT_EQ("RemoteDevice" + std::to_string(i) + ".xml", name);
        EXPECT_NE(std::string::npos, document.find("<RegisterDescription")) << name;
        EXPECT_EQ(document, ReadFile(producer.File("debug/DEV_CAM-1/" + name))) << "saved as the camera sent it";
        documents.insert(document);
    }
    EXPECT_EQ(3u, documents.size());
    EXPECT_EQ(3u, CacheFiles().size()) << "one cache file per document";
}

// The settings name a document of their own for this camera.
class DeviceWithOverride : public DeviceFamily {
protected:
    static std::string Override()
    {
        return "<RemoteDeviceXMLFile CameraID=\"DEV_CAM-1\">override.xml</RemoteDeviceXMLFile>"
               "<RemoteDeviceXMLFile CameraID=\"DEV_OTHER\">override.xml</RemoteDeviceXMLFile>"
               "<RemoteDeviceXMLAddress CameraID=\"DEV_CAM-1\">0x7000000</RemoteDeviceXMLAddress>";
    }
    static constexpr const char* Own =
        "<?xml version=\"1.0\"?>\n<RegisterDescription ModelName=\"Override\" SchemaMajorVersion=\"1\" "
        "SchemaMinorVersion=\"1\" SchemaSubMinorVersion=\"0\" MajorVersion=\"2\" MinorVersion=\"0\" "
        "SubMinorVersion=\"0\" ProductGuid=\"0d1e4d10-0000-4000-8000-000000000001\"/>\n";
    DeviceWithOverride() : DeviceFamily(Override(), "", {{"override.xml", Own}}) {}
};

TEST_F(DeviceWithOverride, TheSettingsDocumentReplacesTheCamerasAndItsCache)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    PORT_HANDLE remote = RemotePort(device);
    uint32_t urls = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCGetNumPortURLs)(remote, &urls));
    EXPECT_EQ(1u, urls);
    char url[512] = {};
    size_t size = sizeof url;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCGetPortURL)(remote, url, &size));
    EXPECT_EQ(0u, std::string(url).find("local:override.xml;7000000;")) << url;
    std::string name;
    EXPECT_EQ(Own, RemoteDocument(remote, 0, &name));
    EXPECT_TRUE(CacheFiles().empty()) << "the camera's manifest is not looked at";
    EXPECT_EQ("Virtual CSI-2 Camera", ReadText(remote, 0x0044, 64)) << "the camera's registers still answer";
}

}

namespace {

TEST_F(DeviceFamily, DeviceResetRestartsTheCameraWhichThenOpensAnew)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    PORT_HANDLE remote = RemotePort(device);
    EXPECT_EQ("Virtual CSI-2 Camera", ReadText(remote, 0x0044, 64));
    std::uint32_t one = 1;
    size_t size = sizeof one;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCWritePort)(device, 0x10C0000, &one, &size)) << producer.LastError().second;
    // The camera left GenCP mode with its restart: the open device can only be closed.
    char text[64] = {};
    size = sizeof text;
    EXPECT_NE(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(remote, 0x0044, text, &size));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    device = Open(DEVICE_ACCESS_CONTROL);
    EXPECT_EQ("Virtual CSI-2 Camera", ReadText(RemotePort(device), 0x0044, 64)) << "opened anew, it answers";
}

}

namespace {

TEST_F(DeviceFamily, TheTraceOfOpeningAStreamListsItsIDAsAnInput)
{
    DEV_HANDLE device = Open(DEVICE_ACCESS_CONTROL);
    DS_HANDLE stream = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevOpenDataStream)(device, "DEV_CAM-1_DS_0x0", &stream));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    const std::string log = ReadFile(producer.File("lorun.log"));
    EXPECT_NE(std::string::npos, log.find("DevOpenDataStream: Input Parameter sDataStreamID")) << log.substr(0, 2000);
    EXPECT_EQ(std::string::npos, log.find("DevOpenDataStream: Output Parameter sDataStreamID"));
}

}
