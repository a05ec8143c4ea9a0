// Loads a GenTL producer (.cti) by path, exactly as a consumer does, and shows what it reports.
#include "entry/GenTL.h"

#include <dlfcn.h>

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
        if (getLastError(&code, nullptr, &size) != GC_ERR_SUCCESS)
            return "<no error text>";
        std::vector<char> text(size);
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
            return "<datatype " + std::to_string(type) + ", " + std::to_string(size) + " bytes>";
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

void Usage()
{
    std::fprintf(stderr, "Usage: lorun-gentl info PRODUCER.cti\n");
}

}

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "info") == 0)
        return ShowInfo(argv[2]);
    Usage();
    return 2;
}
