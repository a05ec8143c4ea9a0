#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>

namespace QEL { namespace Sim {

// Follows a text file that other processes append commands to, one per line,
// and hands each new complete line to `apply` on a thread of its own, which
// the destructor stops and joins. Lines already in the file when watching
// starts are skipped, so a file left from an earlier run does not replay; a
// file that shrinks or is replaced is read again from its start. After each
// look that read whole lines, FILE.applied holds the number of the file's last
// line read, written once every line up to it has been applied: a process
// that appended a command waits for that number instead of guessing a delay.
// Puts `text` in the file `target`, written under a temporary name beside it
// and renamed over it: a reader never sees half of it, and a link planted
// under either name is replaced, not followed. False when it could not.
bool WriteFileReplacing(const std::string& target, const std::string& text);

class ControlFile {
public:
    using Apply = std::function<void(const std::string& line, std::uint64_t lineNumber)>;

    static constexpr std::size_t MaxLineLength = 1024;

    ControlFile(std::string path, Apply apply, std::chrono::milliseconds interval = std::chrono::milliseconds(50));
    ~ControlFile();
    ControlFile(const ControlFile&) = delete;
    ControlFile& operator=(const ControlFile&) = delete;

    // Reads what was appended since the last look; the thread calls this too.
    void Poll();

private:
    void Run();
    void Consume(const char* data, std::size_t size);
    void Acknowledge() const;

    const std::string path;
    const Apply apply;
    const std::chrono::milliseconds interval;
    std::mutex pollMutex;            // one Poll at a time
    bool started = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t offset = 0;
    off_t skipUntil = 0;             // the file's end when watching began
    std::string partial;             // a line whose end has not been written yet
    bool overlong = false;           // the current line passed MaxLineLength and is dropped
    std::uint64_t lineNumber = 0;

    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
    std::thread worker;
};

} }
