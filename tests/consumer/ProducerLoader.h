#pragma once

// Loads a private copy of the built producer the way a consumer does: dlopen
// by path and dlsym only. Each copy lives in its own folder, so it gets its own
// settings file and its own library state.
#include "base/GenTL.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

class ProducerLoader {
public:
    using GetInfoFn = GC_ERROR (*)(TL_INFO_CMD, INFO_DATATYPE*, void*, size_t*);
    using GetLastErrorFn = GC_ERROR (*)(GC_ERROR*, char*, size_t*);
    using InitLibFn = GC_ERROR (*)();
    using InitLibExFn = GC_ERROR (*)(uint32_t);
    using CloseLibFn = GC_ERROR (*)();

    // `settingsXml` is written beside the copy as its settings file, and
    // `libcsiConfig` as libcsi.cfg, when not empty: before the copy is loaded,
    // since libcsi reads its configuration as it loads.
    explicit ProducerLoader(const std::string& settingsXml = "", const std::string& libcsiConfig = "")
    {
        folder = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("lorun-%%%%-%%%%-%%%%");
        boost::filesystem::create_directories(folder);
        path = (folder / "lorun_csi2.cti").string();
        boost::filesystem::copy_file(LORUN_CTI_PATH, path);
        if (!settingsXml.empty())
            std::ofstream((folder / "lorun_csi2.xml").string()) << settingsXml;
        if (!libcsiConfig.empty())
            std::ofstream((folder / "libcsi.cfg").string()) << libcsiConfig;
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle)
            throw std::runtime_error(dlerror());
        GCGetInfo = Symbol<GetInfoFn>("GCGetInfo");
        GCGetLastError = Symbol<GetLastErrorFn>("GCGetLastError");
        GCInitLib = Symbol<InitLibFn>("GCInitLib");
        GCInitLibEx = Symbol<InitLibExFn>("GCInitLibEx");
        GCCloseLib = Symbol<CloseLibFn>("GCCloseLib");
    }

    ~ProducerLoader()
    {
        if (GCCloseLib)
            GCCloseLib();
        boost::system::error_code ignored;
        boost::filesystem::remove_all(folder, ignored);
    }

    template <class F>
    F Symbol(const char* name) const
    {
        auto function = reinterpret_cast<F>(dlsym(handle, name));
        if (!function)
            throw std::runtime_error(std::string("missing export ") + name);
        return function;
    }

    // The last error of the calling thread as (code, text).
    std::pair<GC_ERROR, std::string> LastError() const
    {
        GC_ERROR code = 1;
        size_t size = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, GCGetLastError(&code, nullptr, &size));
        std::vector<char> text(size);
        EXPECT_EQ(GC_ERR_SUCCESS, GCGetLastError(&code, text.data(), &size));
        return {code, std::string(text.data())};
    }

    std::string InfoString(TL_INFO_CMD command) const
    {
        INFO_DATATYPE type = 0;
        size_t size = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, GCGetInfo(command, &type, nullptr, &size));
        std::vector<char> text(size);
        EXPECT_EQ(GC_ERR_SUCCESS, GCGetInfo(command, &type, text.data(), &size));
        EXPECT_EQ(INFO_DATATYPE_STRING, type);
        return std::string(text.data());
    }

    std::string File(const std::string& name) const { return (folder / name).string(); }
    const std::string& Path() const { return path; }
    void* Library() const { return handle; }

    GetInfoFn GCGetInfo = nullptr;
    GetLastErrorFn GCGetLastError = nullptr;
    InitLibFn GCInitLib = nullptr;
    InitLibExFn GCInitLibEx = nullptr;
    CloseLibFn GCCloseLib = nullptr;

private:
    boost::filesystem::path folder;
    std::string path;
    void* handle = nullptr;
};
