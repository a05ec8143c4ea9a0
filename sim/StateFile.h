#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace QEL { namespace Sim {

// What a powered camera keeps between the processes that use it: the values of
// its settings registers, by camera section, in one file per board. Every
// process that loads the board's description shares the file; a lock file
// beside it (FILE.lock) serialises their reads and writes and marks which
// cameras a process has open. A damaged or foreign file is reported on
// standard error with its path and ignored, never trusted.
class StateFile {
public:
    using Values = std::map<std::uint64_t, std::vector<std::uint8_t>>; // register address: its bytes

    // `identity` tells this board's files from others' (a digest of the description).
    StateFile(std::string path, std::uint64_t identity);
    ~StateFile();
    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    // The values kept for `camera`; none when the file is missing, damaged or foreign.
    Values Load(const std::string& camera);
    // Keeps `values` as all there is for `camera` (none: the camera is as described).
    void Save(const std::string& camera, const Values& values);

    // Marks camera `index` open in this process: false while another process has it open.
    bool Claim(std::size_t index);
    void Release(std::size_t index);

    const std::string& Path() const { return path; }

    // Where a description's state goes by default: beside it, or under the
    // user's runtime folder when its folder is not writable.
    static std::string DefaultPath(const std::string& description);

private:
    using Cameras = std::map<std::string, Values>;
    Cameras ReadAll();
    void WriteAll(const Cameras& cameras);
    bool LockRange(short type, std::size_t byte, bool wait);

    const std::string path;
    const std::uint64_t identity;
    std::mutex mutex; // the lock file's byte 0 excludes other processes, this the threads of ours
    int lockFd = -1;
};

// FNV-1a, 64 bits: the identity of a description's text.
std::uint64_t TextDigest(const std::string& text);

} }
