// TLOpen, the System and Interface families through the built producer, on
// the virtual camera.
#include "tests/consumer/ProducerLoader.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

class SystemFamily : public ::testing::Test {
protected:
    using TLOpenFn = GC_ERROR (*)(TL_HANDLE*);
    using TLCloseFn = GC_ERROR (*)(TL_HANDLE);
    using TLUpdateInterfaceListFn = GC_ERROR (*)(TL_HANDLE, bool8_t*, uint64_t);
    using TLGetNumInterfacesFn = GC_ERROR (*)(TL_HANDLE, uint32_t*);
    using TLGetInterfaceIDFn = GC_ERROR (*)(TL_HANDLE, uint32_t, char*, size_t*);
    using TLGetInfoFn = GC_ERROR (*)(TL_HANDLE, TL_INFO_CMD, INFO_DATATYPE*, void*, size_t*);
    using GCReadPortFn = GC_ERROR (*)(PORT_HANDLE, uint64_t, void*, size_t*);
    using GCWritePortFn = GC_ERROR (*)(PORT_HANDLE, uint64_t, const void*, size_t*);

    SystemFamily()
    {
        // The copy of the producer picks its backend at its first use of the system.
        std::ofstream(producer.File("cameras.ini"))
            << "[camera0]\nguid = CAM-1\nserial_number = SN-1\nbus_timing = 0\n"
            << "[camera1]\nnode = video1\nport = 3\nbus = 3\nguid = CAM-2\nbus_timing = 0\n";
        setenv("LORUN_VIRTUAL_CAMERA", producer.File("cameras.ini").c_str(), 1);
        TLOpen = producer.Symbol<TLOpenFn>("TLOpen");
        TLClose = producer.Symbol<TLCloseFn>("TLClose");
        TLUpdateInterfaceList = producer.Symbol<TLUpdateInterfaceListFn>("TLUpdateInterfaceList");
        TLGetNumInterfaces = producer.Symbol<TLGetNumInterfacesFn>("TLGetNumInterfaces");
        TLGetInterfaceID = producer.Symbol<TLGetInterfaceIDFn>("TLGetInterfaceID");
        TLGetInfo = producer.Symbol<TLGetInfoFn>("TLGetInfo");
        GCReadPort = producer.Symbol<GCReadPortFn>("GCReadPort");
        GCWritePort = producer.Symbol<GCWritePortFn>("GCWritePort");
        EXPECT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
    }
    ~SystemFamily() override { unsetenv("LORUN_VIRTUAL_CAMERA"); }

    ProducerLoader producer;
    TLOpenFn TLOpen;
    TLCloseFn TLClose;
    TLUpdateInterfaceListFn TLUpdateInterfaceList;
    TLGetNumInterfacesFn TLGetNumInterfaces;
    TLGetInterfaceIDFn TLGetInterfaceID;
    TLGetInfoFn TLGetInfo;
    GCReadPortFn GCReadPort;
    GCWritePortFn GCWritePort;
};

TEST_F(SystemFamily, OpenListAndClose)
{
    TL_HANDLE tl = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, TLOpen(&tl));
    std::ifstream info(producer.File("libcsi_info.txt"));
    const std::string found((std::istreambuf_iterator<char>(info)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, found.find("2 device(s) found")) << "TLOpen found the virtual camera: " << found;
    TL_HANDLE second = nullptr;
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, TLOpen(&second));
    EXPECT_EQ("System already open.", producer.LastError().second);

    char model[64] = {};
    size_t size = sizeof model;
    INFO_DATATYPE type = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, TLGetInfo(tl, TL_INFO_MODEL, &type, model, &size));
    EXPECT_STREQ("Lorun CSI-2 GenTL", model);

    uint32_t count = 7;
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, TLGetNumInterfaces(tl, &count));
    EXPECT_EQ("Invalid without interface list update.", producer.LastError().second);
    bool8_t changed = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, TLUpdateInterfaceList(tl, &changed, 100));
    EXPECT_EQ(1, changed);
    ASSERT_EQ(GC_ERR_SUCCESS, TLUpdateInterfaceList(tl, &changed, 100));
    EXPECT_EQ(0, changed);
    ASSERT_EQ(GC_ERR_SUCCESS, TLGetNumInterfaces(tl, &count));
    EXPECT_EQ(1u, count);
    char id[64] = {};
    size = sizeof id;
    ASSERT_EQ(GC_ERR_SUCCESS, TLGetInterfaceID(tl, 0, id, &size));
    EXPECT_STREQ("LorunCSIInterface_0x0", id);
    size = sizeof id;
    EXPECT_EQ(GC_ERR_INVALID_INDEX, TLGetInterfaceID(tl, 1, id, &size));

    uint32_t selector = 1;
    size = sizeof selector;
    EXPECT_NE(GC_ERR_SUCCESS, GCWritePort(tl, 0x10A0000, &selector, &size));
    EXPECT_EQ("Invalid interface selected.", producer.LastError().second);
    char vendor[128] = {};
    size = sizeof vendor;
    ASSERT_EQ(GC_ERR_SUCCESS, GCReadPort(tl, 0x1000000, vendor, &size));
    EXPECT_STREQ("Tesmar Lumetric Industries", vendor);

    ASSERT_EQ(GC_ERR_SUCCESS, TLClose(tl));
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, TLGetNumInterfaces(tl, &count)) << "the handle died with the System";
    ASSERT_EQ(GC_ERR_SUCCESS, TLOpen(&tl)) << "a closed System is replaced";
    EXPECT_EQ(GC_ERR_SUCCESS, TLClose(tl));
}

TEST_F(SystemFamily, TheInterfaceListsTheCameras)
{
    using TLOpenInterfaceFn = GC_ERROR (*)(TL_HANDLE, const char*, IF_HANDLE*);
    using IFUpdateDeviceListFn = GC_ERROR (*)(IF_HANDLE, bool8_t*, uint64_t);
    using IFGetNumDevicesFn = GC_ERROR (*)(IF_HANDLE, uint32_t*);
    using IFGetDeviceIDFn = GC_ERROR (*)(IF_HANDLE, uint32_t, char*, size_t*);
    using IFGetDeviceInfoFn = GC_ERROR (*)(IF_HANDLE, const char*, DEVICE_INFO_CMD, INFO_DATATYPE*, void*, size_t*);
    using IFCloseFn = GC_ERROR (*)(IF_HANDLE);
    auto TLOpenInterface = producer.Symbol<TLOpenInterfaceFn>("TLOpenInterface");
    auto IFUpdateDeviceList = producer.Symbol<IFUpdateDeviceListFn>("IFUpdateDeviceList");
    auto IFGetNumDevices = producer.Symbol<IFGetNumDevicesFn>("IFGetNumDevices");
    auto IFGetDeviceID = producer.Symbol<IFGetDeviceIDFn>("IFGetDeviceID");
    auto IFGetDeviceInfo = producer.Symbol<IFGetDeviceInfoFn>("IFGetDeviceInfo");
    auto IFClose = producer.Symbol<IFCloseFn>("IFClose");

    TL_HANDLE tl = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, TLOpen(&tl));
    IF_HANDLE interface = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, TLOpenInterface(tl, "LorunCSIInterface_0x0", &interface)) << "no list update needed";
    uint32_t count = 0;
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, IFGetNumDevices(interface, &count));
    char text[256] = {};
    size_t size = sizeof text;
    INFO_DATATYPE type = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, IFGetDeviceInfo(interface, "SN-1", DEVICE_INFO_ID, &type, text, &size));
    EXPECT_STREQ("DEV_CAM-1", text) << "a serial number finds the device";
    bool8_t changed = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, IFUpdateDeviceList(interface, &changed, 100));
    EXPECT_EQ(1, changed);
    ASSERT_EQ(GC_ERR_SUCCESS, IFGetNumDevices(interface, &count));
    EXPECT_EQ(2u, count);
    size = sizeof text;
    ASSERT_EQ(GC_ERR_SUCCESS, IFGetDeviceID(interface, 1, text, &size));
    EXPECT_STREQ("DEV_CAM-2", text);
    int32_t status = 0;
    size = sizeof status;
    ASSERT_EQ(GC_ERR_SUCCESS, IFGetDeviceInfo(interface, "DEV_CAM-2", DEVICE_INFO_ACCESS_STATUS, &type, &status, &size));
    EXPECT_EQ(DEVICE_ACCESS_STATUS_READWRITE, status);
    EXPECT_EQ(INFO_DATATYPE_INT32, type);
    ASSERT_EQ(GC_ERR_SUCCESS, IFClose(interface));
    EXPECT_EQ(GC_ERR_SUCCESS, TLClose(tl));
}

}
