// Loads a GenTL producer (.cti) by path, exactly as a consumer does, and shows what it reports.
#include "base/GenTL.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using GCGetInfoFn = GC_ERROR (*)(TL_INFO_CMD, INFO_DATATYPE*, void*, size_t*);
using GCGetLastErrorFn = GC_ERROR (*)(GC_ERROR*, char*, size_t*);
using GCInitLibFn = GC_ERROR (*)();
using GCCloseLibFn = GC_ERROR (*)();
using TLOpenFn = GC_ERROR (*)(TL_HANDLE*);
using TLCloseFn = GC_ERROR (*)(TL_HANDLE);
using TLUpdateInterfaceListFn = GC_ERROR (*)(TL_HANDLE, bool8_t*, uint64_t);
using TLGetNumInterfacesFn = GC_ERROR (*)(TL_HANDLE, uint32_t*);
using TLGetInterfaceIDFn = GC_ERROR (*)(TL_HANDLE, uint32_t, char*, size_t*);
using TLOpenInterfaceFn = GC_ERROR (*)(TL_HANDLE, const char*, IF_HANDLE*);
using IFCloseFn = GC_ERROR (*)(IF_HANDLE);
using IFUpdateDeviceListFn = GC_ERROR (*)(IF_HANDLE, bool8_t*, uint64_t);
using IFGetNumDevicesFn = GC_ERROR (*)(IF_HANDLE, uint32_t*);
using IFGetDeviceIDFn = GC_ERROR (*)(IF_HANDLE, uint32_t, char*, size_t*);
using IFGetDeviceInfoFn = GC_ERROR (*)(IF_HANDLE, const char*, DEVICE_INFO_CMD, INFO_DATATYPE*, void*, size_t*);

struct Producer {
    void* library = nullptr;
    GCGetInfoFn getInfo = nullptr;
    GCGetLastErrorFn getLastError = nullptr;
    GCInitLibFn initLib = nullptr;
    GCCloseLibFn closeLib = nullptr;

    bool Load(const std::string& given)
    {
        // A bare file name would make dlopen search the library path instead of the folder at hand.
        char resolved[PATH_MAX];
        std::string path = realpath(given.c_str(), resolved) ? resolved : given;
        // dlopen of a FIFO waits for a writer for ever, and of a directory says little.
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            std::fprintf(stderr, "Could not load %s: %s\n", path.c_str(), std::strerror(errno));
            return false;
        }
        if (!S_ISREG(status.st_mode)) {
            std::fprintf(stderr, "Could not load %s: not a regular file.\n", path.c_str());
            return false;
        }
        library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!library) {
            std::fprintf(stderr, "Could not load %s: %s\n", path.c_str(), dlerror());
            return false;
        }
        return Resolve("GCGetInfo", getInfo) && Resolve("GCGetLastError", getLastError) &&
               Resolve("GCInitLib", initLib) && Resolve("GCCloseLib", closeLib);
    }

    template <class F>
    bool Resolve(const char* name, F& function)
    {
        function = reinterpret_cast<F>(dlsym(library, name));
        if (!function)
            std::fprintf(stderr, "The producer does not export %s.\n", name);
        return function != nullptr;
    }

    std::string LastError() const
    {
        GC_ERROR code = 0;
        size_t size = 0;
        if (getLastError(&code, nullptr, &size) != GC_ERR_SUCCESS || size == 0)
            return "<no error text>";
        // One more byte than asked for: a producer's text need not end in a terminator.
        std::vector<char> text(size + 1, 0);
        if (getLastError(&code, text.data(), &size) != GC_ERR_SUCCESS)
            return "<no error text>";
        return text.data();
    }

    std::string InfoText(TL_INFO_CMD command) const
    {
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        size_t size = 0;
        GC_ERROR rc = getInfo(command, &type, nullptr, &size);
        if (rc != GC_ERR_SUCCESS)
            return "error " + std::to_string(rc) + ": " + LastError();
        std::vector<unsigned char> buffer(size + 1);
        rc = getInfo(command, &type, buffer.data(), &size);
        if (rc != GC_ERR_SUCCESS)
            return "error " + std::to_string(rc) + ": " + LastError();
        // An answer shorter than its datatype is shown as what it is, not read past.
        std::string raw = "<datatype " + std::to_string(type) + ", " + std::to_string(size) + " bytes>";
        if ((type == INFO_DATATYPE_INT32 || type == INFO_DATATYPE_UINT32) && size < sizeof(int32_t))
            return raw;
        switch (type) {
        case INFO_DATATYPE_STRING:
            return reinterpret_cast<const char*>(buffer.data());
        case INFO_DATATYPE_INT32: {
            int32_t v;
            std::memcpy(&v, buffer.data(), sizeof v);
            return std::to_string(v);
        }
        case INFO_DATATYPE_UINT32: {
            uint32_t v;
            std::memcpy(&v, buffer.data(), sizeof v);
            return std::to_string(v);
        }
        default:
            return raw;
        }
    }
};

int ShowInfo(const std::string& path)
{
    Producer producer;
    if (!producer.Load(path))
        return 1;
    GC_ERROR rc = producer.initLib();
    if (rc != GC_ERR_SUCCESS) {
        std::fprintf(stderr, "GCInitLib failed with %d.\n", rc);
        return 1;
    }
    static const struct {
        TL_INFO_CMD command;
        const char* label;
    } rows[] = {
        {TL_INFO_ID, "ID"},
        {TL_INFO_VENDOR, "Vendor"},
        {TL_INFO_MODEL, "Model"},
        {TL_INFO_VERSION, "Version"},
        {TL_INFO_TLTYPE, "TL type"},
        {TL_INFO_NAME, "Name"},
        {TL_INFO_PATHNAME, "Path"},
        {TL_INFO_DISPLAYNAME, "Display name"},
        {TL_INFO_CHAR_ENCODING, "Encoding"},
        {TL_INFO_GENTL_VER_MAJOR, "GenTL version major"},
        {TL_INFO_GENTL_VER_MINOR, "GenTL version minor"},
        {TL_INFO_CUSTOM_ID, "Custom TL type"},
    };
    std::printf("%-22s %s\n", "Info", "Value");
    std::printf("%-22s %s\n", "----------------------", "-----");
    for (const auto& row : rows) {
        std::string value = producer.InfoText(row.command);
        if (row.command == TL_INFO_CHAR_ENCODING)
            value += value == "1" ? " (UTF-8)" : value == "0" ? " (ASCII)" : "";
        std::printf("%-22s %s\n", row.label, value.c_str());
    }
    producer.closeLib();
    return 0;
}

// A text answer of a two-call GenTL getter: first the size, then the text.
template <class Call>
std::string TextOf(const Producer& producer, Call call)
{
    size_t size = 0;
    if (call(static_cast<char*>(nullptr), &size) != GC_ERR_SUCCESS)
        return "<" + producer.LastError() + ">";
    std::vector<char> text(size + 1, 0);
    if (call(text.data(), &size) != GC_ERR_SUCCESS)
        return "<" + producer.LastError() + ">";
    return text.data();
}

// Opens the transport layer and each interface, and prints every camera in it.
int ShowDevices(const std::string& path)
{
    Producer producer;
    if (!producer.Load(path))
        return 1;
    TLOpenFn tlOpen;
    TLCloseFn tlClose;
    TLUpdateInterfaceListFn tlUpdate;
    TLGetNumInterfacesFn tlCount;
    TLGetInterfaceIDFn tlInterfaceID;
    TLOpenInterfaceFn tlOpenInterface;
    IFCloseFn ifClose;
    IFUpdateDeviceListFn ifUpdate;
    IFGetNumDevicesFn ifCount;
    IFGetDeviceIDFn ifDeviceID;
    IFGetDeviceInfoFn ifDeviceInfo;
    if (!producer.Resolve("TLOpen", tlOpen) || !producer.Resolve("TLClose", tlClose) ||
        !producer.Resolve("TLUpdateInterfaceList", tlUpdate) || !producer.Resolve("TLGetNumInterfaces", tlCount) ||
        !producer.Resolve("TLGetInterfaceID", tlInterfaceID) || !producer.Resolve("TLOpenInterface", tlOpenInterface) ||
        !producer.Resolve("IFClose", ifClose) || !producer.Resolve("IFUpdateDeviceList", ifUpdate) ||
        !producer.Resolve("IFGetNumDevices", ifCount) || !producer.Resolve("IFGetDeviceID", ifDeviceID) ||
        !producer.Resolve("IFGetDeviceInfo", ifDeviceInfo))
        return 1;
    if (producer.initLib() != GC_ERR_SUCCESS) {
        std::fprintf(stderr, "GCInitLib failed: %s\n", producer.LastError().c_str());
        return 1;
    }
    TL_HANDLE tl = nullptr;
    uint32_t interfaces = 0;
    if (tlOpen(&tl) != GC_ERR_SUCCESS || tlUpdate(tl, nullptr, 1000) != GC_ERR_SUCCESS ||
        tlCount(tl, &interfaces) != GC_ERR_SUCCESS) {
        std::fprintf(stderr, "Could not open the transport layer: %s\n", producer.LastError().c_str());
        producer.closeLib();
        return 1;
    }
    int result = 0;
    for (uint32_t i = 0; i < interfaces; ++i) {
        const std::string interfaceID =
            TextOf(producer, [&](char* text, size_t* size) { return tlInterfaceID(tl, i, text, size); });
        IF_HANDLE interface = nullptr;
        uint32_t devices = 0;
        if (tlOpenInterface(tl, interfaceID.c_str(), &interface) != GC_ERR_SUCCESS ||
            ifUpdate(interface, nullptr, 1000) != GC_ERR_SUCCESS || ifCount(interface, &devices) != GC_ERR_SUCCESS) {
            std::fprintf(stderr, "Could not list interface %s: %s\n", interfaceID.c_str(), producer.LastError().c_str());
            result = 1;
            continue;
        }
        std::printf("Interface %s: %u device(s)\n", interfaceID.c_str(), devices);
        std::printf("%-36s %-28s %-28s %-16s %s\n", "ID", "Vendor", "Model", "Serial number", "Access");
        for (uint32_t d = 0; d < devices; ++d) {
            const std::string id =
                TextOf(producer, [&](char* text, size_t* size) { return ifDeviceID(interface, d, text, size); });
            auto info = [&](DEVICE_INFO_CMD command) {
                return TextOf(producer, [&](char* text, size_t* size) {
                    INFO_DATATYPE type = 0;
                    return ifDeviceInfo(interface, id.c_str(), command, &type, text, size);
                });
            };
            int32_t access = 0;
            size_t size = sizeof access;
            INFO_DATATYPE type = 0;
            const bool known =
                ifDeviceInfo(interface, id.c_str(), DEVICE_INFO_ACCESS_STATUS, &type, &access, &size) == GC_ERR_SUCCESS;
            const char* accessText = !known ? "?" : access == DEVICE_ACCESS_STATUS_READWRITE ? "read/write"
                                                : access == DEVICE_ACCESS_STATUS_NOACCESS    ? "no access"
                                                                                             : "other";
            std::printf("%-36s %-28s %-28s %-16s %s\n", id.c_str(), info(DEVICE_INFO_VENDOR).c_str(),
                        info(DEVICE_INFO_MODEL).c_str(), info(DEVICE_INFO_SERIAL_NUMBER).c_str(), accessText);
        }
        ifClose(interface);
    }
    tlClose(tl);
    producer.closeLib();
    return result;
}

void Usage()
{
    std::fprintf(stderr, "Usage: lorun-gentl info PRODUCER.cti\n"
                         "       lorun-gentl devices PRODUCER.cti\n");
}

}

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "info") == 0)
        return ShowInfo(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "devices") == 0)
        return ShowDevices(argv[2]);
    Usage();
    return 2;
}
