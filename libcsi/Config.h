#pragma once

#include <cstdint>
#include <string>

namespace QEL { namespace LibCSIImpl {

// The process-wide configuration of libcsi, read from libcsi.cfg in the
// library's folder (or HOME) when the library is loaded.
struct Config {
    std::string directory;
    std::string moduleName;

    std::int32_t logLevel = 3;
    std::uint32_t numDumpFrames = 0;
    std::uint32_t dumpStartFrameNumber = 0;
    bool dumpFrameTiming = false;
    bool ipuOverride = false;
    std::uint32_t ipuXMin = 256;
    std::uint32_t ipuXMax = 32768;
    std::uint32_t ipuXInc = 192;
    std::uint32_t ipuYMin = 32;
    std::uint32_t ipuYMax = 32768;
    std::uint32_t ipuYInc = 1;
    bool enableUserptr = false;
    bool disableMagicKeysCheck = false;
    bool disableBlockIdCheck = false;
    bool dumpAcqStatistics = false;
    bool enableFdtpPrioIncrease = true;
    std::uint32_t numFrameCopyThreads = 1;

    // The file `name` in the configuration's folder.
    std::string PathOf(const std::string& name) const;

    // Sets the defaults and applies the file rules in `folder`: an empty
    // libcsi.cfg, or the marker libcsi_log_enable without one, gives a fresh
    // file of defaults; otherwise the file is read, missing keys taking their
    // file defaults. log_level ends clamped to 0..5.
    void Load(std::string folder, std::string module);
    // Writes the record over libcsi.cfg when that file exists.
    void WriteBack() const;
    void Write() const;
};

Config& TheConfig();

// The folder of the file that holds this code, from /proc/self/maps; HOME when none.
std::string FindOwnDirectory(std::string* moduleName);

} }
