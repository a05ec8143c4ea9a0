// Every exported function with null pointers and invalid handles, through the
// built producer: the checks come in their order, before any handle is used.
#include "ProducerLoader.h"

#include <fstream>
#include <functional>
#include <iterator>
#include <memory>

namespace {

#define CALL(name, ...) [&] { return loader->Symbol<decltype(&::name)>(#name)(__VA_ARGS__); }

struct Row {
    const char* label;
    std::function<GC_ERROR()> call;
    GC_ERROR code;
    const char* text; // null: only the code is checked
};

class ArgumentChecks : public ::testing::Test {
protected:
    std::unique_ptr<ProducerLoader> loader = std::make_unique<ProducerLoader>();
    void* bad = reinterpret_cast<void*>(0x0100000000000001ull); // a System handle that was never handed out
    void* handle = nullptr;
    char text[64] = {};
    size_t size = sizeof text;
    uint32_t number = 0;
    INFO_DATATYPE type = 0;
    bool8_t changed = 0;
    PORT_REGISTER_STACK_ENTRY entries[1] = {{0, text, 4}};
    size_t entryCount = 1;

    std::vector<Row> Rows()
    {
        const GC_ERROR invalidHandle = GC_ERR_INVALID_HANDLE;
        const char* invalid = "Invalid handle passed.";
        const GC_ERROR param = GC_ERR_INVALID_PARAMETER;
        return {
            {"GCGetPortURL size", CALL(GCGetPortURL, bad, nullptr, nullptr), param, "No size passed."},
            {"GCGetNumPortURLs", CALL(GCGetNumPortURLs, bad, nullptr), param, "No number of port URLs passed."},
            {"GCReadPort", CALL(GCReadPort, bad, 0, text, &size), invalidHandle, invalid},
            {"GCWritePort", CALL(GCWritePort, nullptr, 0, text, &size), invalidHandle, invalid},
            {"GCGetPortInfo type", CALL(GCGetPortInfo, bad, PORT_INFO_ID, nullptr, nullptr, &size), param,
             "No datatype passed."},
            {"GCGetPortInfo", CALL(GCGetPortInfo, bad, PORT_INFO_ID, &type, nullptr, &size), invalidHandle, invalid},
            {"GCGetPortURLInfo size", CALL(GCGetPortURLInfo, bad, 0, URL_INFO_URL, &type, nullptr, nullptr), param,
             "No size passed."},
            {"GCReadPortStacked entries", CALL(GCReadPortStacked, bad, nullptr, &entryCount), param,
             "No register stack entries passed."},
            {"GCWritePortStacked count", CALL(GCWritePortStacked, bad, entries, nullptr), param,
             "No number of register stack entries passed."},
            {"GCReadPortStacked", CALL(GCReadPortStacked, bad, entries, &entryCount), invalidHandle, invalid},
            {"GCRegisterEvent", CALL(GCRegisterEvent, bad, EVENT_ERROR, nullptr), param, "No event handle passed."},
            {"GCUnregisterEvent", CALL(GCUnregisterEvent, bad, EVENT_ERROR), invalidHandle, invalid},
            {"EventGetData", CALL(EventGetData, bad, text, &size, 0), invalidHandle, invalid},
            {"EventGetDataInfo type", CALL(EventGetDataInfo, bad, text, 4, EVENT_DATA_ID, nullptr, nullptr, &size),
             param, "No datatype passed."},
            {"EventGetInfo", CALL(EventGetInfo, bad, EVENT_EVENT_TYPE, &type, nullptr, &size), invalidHandle, invalid},
            {"EventFlush", CALL(EventFlush, bad), invalidHandle, invalid},
            {"EventKill", CALL(EventKill, nullptr), invalidHandle, invalid},
            {"TLOpen handle", CALL(TLOpen, nullptr), param, "No transport layer handle passed."},
            {"TLClose", CALL(TLClose, bad), invalidHandle, invalid},
            {"TLGetInfo", CALL(TLGetInfo, bad, TL_INFO_ID, &type, nullptr, &size), invalidHandle, invalid},
            {"TLGetNumInterfaces", CALL(TLGetNumInterfaces, bad, nullptr), param, "No number of interfaces passed."},
            {"TLGetInterfaceID", CALL(TLGetInterfaceID, bad, 0, nullptr, nullptr), invalidHandle, invalid},
            {"TLGetInterfaceInfo id", CALL(TLGetInterfaceInfo, bad, nullptr, 0, nullptr, nullptr, nullptr), param,
             "No interface ID passed."},
            {"TLOpenInterface id", CALL(TLOpenInterface, bad, nullptr, &handle), param, "No interface ID passed."},
            {"TLOpenInterface handle", CALL(TLOpenInterface, bad, "if0", nullptr), param,
             "No interface handle passed."},
            {"TLUpdateInterfaceList", CALL(TLUpdateInterfaceList, bad, &changed, 0), invalidHandle, invalid},
            {"IFClose", CALL(IFClose, bad), invalidHandle, invalid},
            {"IFGetInfo size", CALL(IFGetInfo, bad, INTERFACE_INFO_ID, &type, nullptr, nullptr), param,
             "No size passed."},
            {"IFGetNumDevices", CALL(IFGetNumDevices, bad, nullptr), param, "No number of devices passed."},
            {"IFGetDeviceID", CALL(IFGetDeviceID, bad, 0, nullptr, nullptr), invalidHandle, invalid},
            {"IFUpdateDeviceList", CALL(IFUpdateDeviceList, bad, nullptr, 0), invalidHandle, invalid},
            {"IFGetDeviceInfo id", CALL(IFGetDeviceInfo, bad, nullptr, 0, &type, nullptr, &size), param,
             "No device ID passed."},
            {"IFOpenDevice id", CALL(IFOpenDevice, bad, nullptr, 0, &handle), param, "No device ID passed."},
            {"IFOpenDevice handle", CALL(IFOpenDevice, bad, "dev", 0, nullptr), param, "No device handle passed."},
            {"IFGetParentTL", CALL(IFGetParentTL, bad, nullptr), param, "No system handle passed."},
            {"DevGetPort", CALL(DevGetPort, bad, nullptr), param, "No remote device handle passed."},
            {"DevGetNumDataStreams", CALL(DevGetNumDataStreams, bad, nullptr), param,
             "No number of data streams passed."},
            {"DevGetDataStreamID size", CALL(DevGetDataStreamID, bad, 0, nullptr, nullptr), param, "No size passed."},
            {"DevOpenDataStream id", CALL(DevOpenDataStream, bad, nullptr, &handle), param,
             "No data stream ID passed."},
            {"DevOpenDataStream handle", CALL(DevOpenDataStream, bad, "ds", nullptr), param,
             "No data stream handle passed."},
            {"DevGetInfo", CALL(DevGetInfo, bad, DEVICE_INFO_ID, &type, nullptr, &size), invalidHandle, invalid},
            {"DevClose", CALL(DevClose, bad), invalidHandle, invalid},
            {"DevGetParentIF", CALL(DevGetParentIF, bad, nullptr), param, "No interface handle passed."},
            {"DSAnnounceBuffer", CALL(DSAnnounceBuffer, bad, text, 4, nullptr, nullptr), param,
             "No buffer handle passed."},
            {"DSAllocAndAnnounceBuffer", CALL(DSAllocAndAnnounceBuffer, bad, 4, nullptr, nullptr), param,
             "No buffer handle passed."},
            {"DSFlushQueue", CALL(DSFlushQueue, bad, ACQ_QUEUE_ALL_DISCARD), invalidHandle, invalid},
            {"DSStartAcquisition", CALL(DSStartAcquisition, bad, 0, 1), invalidHandle, invalid},
            {"DSStopAcquisition", CALL(DSStopAcquisition, bad, 0), invalidHandle, invalid},
            {"DSGetInfo", CALL(DSGetInfo, bad, STREAM_INFO_ID, &type, nullptr, &size), invalidHandle, invalid},
            {"DSGetBufferID", CALL(DSGetBufferID, bad, 0, nullptr), param, "No buffer handle passed."},
            {"DSClose", CALL(DSClose, bad), invalidHandle, invalid},
            {"DSRevokeBuffer", CALL(DSRevokeBuffer, bad, bad, nullptr, nullptr), invalidHandle, invalid},
            {"DSQueueBuffer", CALL(DSQueueBuffer, bad, bad), invalidHandle, invalid},
            {"DSGetBufferInfo", CALL(DSGetBufferInfo, bad, bad, BUFFER_INFO_BASE, &type, nullptr, &size),
             invalidHandle, invalid},
            {"DSGetBufferChunkData", CALL(DSGetBufferChunkData, bad, bad, nullptr, &size), invalidHandle, invalid},
            {"DSGetParentDev", CALL(DSGetParentDev, bad, nullptr), param, "No device handle passed."},
            {"DSGetNumBufferParts", CALL(DSGetNumBufferParts, bad, bad, nullptr), param,
             "No number of buffer parts passed."},
            {"DSGetBufferPartInfo", CALL(DSGetBufferPartInfo, bad, bad, 0, 0, &type, nullptr, &size), invalidHandle,
             invalid},
        };
    }
};

TEST_F(ArgumentChecks, EveryFunctionIsRefusedBeforeInit)
{
    for (const Row& row : Rows())
        EXPECT_EQ(GC_ERR_NOT_INITIALIZED, row.call()) << row.label;
    entryCount = 4;
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, CALL(GCReadPortStacked, bad, entries, &entryCount)());
    EXPECT_EQ(0u, entryCount) << "a refused stacked call reports zero entries done";
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, loader->GCCloseLib());
}

TEST_F(ArgumentChecks, NullPointersAndInvalidHandles)
{
    ASSERT_EQ(GC_ERR_SUCCESS, loader->GCInitLib());
    for (const Row& row : Rows()) {
        EXPECT_EQ(row.code, row.call()) << row.label;
        if (row.text) {
            EXPECT_EQ(Err(row.code, row.text), loader->LastError()) << row.label;
        }
    }
    entryCount = 4;
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, CALL(GCReadPortStacked, bad, nullptr, &entryCount)());
    EXPECT_EQ(0u, entryCount);
}

TEST_F(ArgumentChecks, AllFunctionsAreTraced)
{
    // Every function leaves its entry and return lines in the system log.
    loader = std::make_unique<ProducerLoader>("<Settings><LogFileName>calls.log</LogFileName></Settings>");
    ASSERT_EQ(GC_ERR_SUCCESS, loader->GCInitLib());
    auto rows = Rows();
    for (const Row& row : rows)
        row.call();
    loader->GCCloseLib();
    std::ifstream in(loader->File("calls.log"));
    std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const Row& row : rows) {
        std::string name(row.label);
        name = name.substr(0, name.find(' '));
        EXPECT_NE(std::string::npos, log.find(": " + name + " called\n")) << name;
        EXPECT_NE(std::string::npos, log.find("  " + name + " returned Int32 ")) << name;
    }
    EXPECT_NE(std::string::npos,
              log.find("  TLGetNumInterfaces returned Int32 -1009 (0xFFFFFC0F) \"No number of interfaces passed.\""));
    EXPECT_NE(std::string::npos, log.find("  DSStartAcquisition: Input Parameter iNumToAcquire = UInt32 1 (0x00000001)"));
    EXPECT_NE(std::string::npos, log.find("  IFOpenDevice: Input Parameter sDeviceID = Pointer 0x"));
    EXPECT_NE(std::string::npos, log.find(" to Int8 100 (0x64)"));
}

}
