#include "libcsi/Config.h"
#include "libcsi/SafeFile.h"

#include <boost/property_tree/ini_parser.hpp>
#include <sstream>
#include <boost/property_tree/ptree.hpp>

#include <dlfcn.h>
#include <libgen.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

namespace QEL { namespace LibCSIImpl {

namespace {

using Tree = boost::property_tree::ptree;

bool Exists(const std::string& path, off_t* size = nullptr)
{
    struct stat info{};
    if (::stat(path.c_str(), &info) != 0)
        return false;
    if (size)
        *size = info.st_size;
    return true;
}

// Each key with its field, in the order of the file.
template <class Visitor>
void VisitKeys(Config& c, Visitor&& visit)
{
    visit("log_level", c.logLevel, 0);
    visit("num_dump_frames", c.numDumpFrames, 0u);
    visit("dump_start_frame_number", c.dumpStartFrameNumber, 0u);
    visit("dump_frame_timing", c.dumpFrameTiming, false);
    visit("ipu_override", c.ipuOverride, false);
    visit("ipu_x_min", c.ipuXMin, 256u);
    visit("ipu_x_max", c.ipuXMax, 32768u);
    visit("ipu_x_inc", c.ipuXInc, 192u);
    visit("ipu_y_min", c.ipuYMin, 32u);
    visit("ipu_y_max", c.ipuYMax, 32768u);
    visit("ipu_y_inc", c.ipuYInc, 1u);
    visit("enable_userptr", c.enableUserptr, false);
    visit("disable_magic_keys_check", c.disableMagicKeysCheck, false);
    visit("disable_block_id_check", c.disableBlockIdCheck, false);
    visit("dump_acq_statistics", c.dumpAcqStatistics, false);
    visit("enable_fdtp_prio_increase", c.enableFdtpPrioIncrease, true);
    visit("num_frame_copy_threads", c.numFrameCopyThreads, 1u);
}

struct ConfigOwner {
    Config config;
    ConfigOwner()
    {
        config.directory = FindOwnDirectory(&config.moduleName);
        config.Load(config.directory, config.moduleName);
    }
    ~ConfigOwner() { config.WriteBack(); }
};

}

std::string Config::PathOf(const std::string& name) const { return directory + "/" + name; }

void Config::Load(std::string folder, std::string module)
{
    // By value: the caller may pass this record's own fields, which the reset clears.
    *this = Config();
    directory = std::move(folder);
    moduleName = std::move(module);
    off_t size = 0;
    const bool hasFile = Exists(PathOf("libcsi.cfg"), &size);
    if ((hasFile && size == 0) || (!hasFile && Exists(PathOf("libcsi_log_enable")))) {
        Write();
        return;
    }
    try {
        Tree tree;
        boost::property_tree::ini_parser::read_ini(PathOf("libcsi.cfg"), tree);
        VisitKeys(*this, [&](const char* key, auto& field, auto fileDefault) {
            field = tree.get<std::decay_t<decltype(field)>>(key, fileDefault);
        });
    } catch (...) {
        // A missing or broken file leaves what was read and the defaults.
    }
    logLevel = std::clamp(logLevel, 0, 5);
}

void Config::Write() const
{
    Tree tree;
    Config copy = *this;
    VisitKeys(copy, [&](const char* key, auto& field, auto) {
        if constexpr (std::is_same_v<std::decay_t<decltype(field)>, bool>)
            tree.put(key, field ? 1 : 0);
        else
            tree.put(key, field);
    });
    try {
        std::ostringstream text;
        boost::property_tree::ini_parser::write_ini(text, tree);
        if (std::FILE* file = OpenFileForWriting(PathOf("libcsi.cfg"), false)) {
            const std::string bytes = text.str();
            std::fwrite(bytes.data(), 1, bytes.size(), file);
            std::fclose(file);
        }
    } catch (...) {
    }
}

void Config::WriteBack() const
{
    if (Exists(PathOf("libcsi.cfg")))
        Write();
}

Config& TheConfig()
{
    // Built on first use and kept until exit, when the file is normalised.
    static ConfigOwner owner;
    return owner.config;
}

std::string FindOwnDirectory(std::string* moduleName)
{
    std::string module;
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&FindOwnDirectory), &info) && info.dli_fname) {
        std::vector<char> path(info.dli_fname, info.dli_fname + std::strlen(info.dli_fname) + 1);
        module = ::basename(path.data());
    }
    std::string directory;
    if (std::FILE* maps = std::fopen("/proc/self/maps", "r")) {
        char line[256];
        char path[256];
        while (std::fgets(line, sizeof line, maps)) {
            if (std::sscanf(line, "%*x-%*x %*s %*s %*s %*s %255s", path) != 1)
                continue;
            std::vector<char> copy(path, path + std::strlen(path) + 1);
            if (!module.empty() && strcasecmp(::basename(copy.data()), module.c_str()) == 0) {
                directory = ::dirname(path);
                break;
            }
        }
        std::fclose(maps);
    }
    if (directory.empty())
        if (const char* home = std::getenv("HOME"))
            directory = home;
    if (moduleName)
        *moduleName = module;
    return directory;
}

} }
namespace QEL { namespace LibCSIImpl { namespace { const bool loadedAtStart = (TheConfig(), true); } } }
