#include "sim/ControlFile.h"
#include "base/NamedThread.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace QEL { namespace Sim {

ControlFile::ControlFile(std::string file, Apply action, std::chrono::milliseconds period)
    : path(std::move(file)), apply(std::move(action)), interval(period)
{
    Poll(); // notes where the file ends now
    worker = Base::StartNamedThread("vcam-control", [this] { Run(); });
}

ControlFile::~ControlFile()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    worker.join();
}

void ControlFile::Run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!wake.wait_for(lock, interval, [this] { return stopping; })) {
        lock.unlock();
        Poll();
        lock.lock();
    }
}

void ControlFile::Poll()
{
    std::lock_guard<std::mutex> lock(pollMutex);
    // Non-blocking, so that a FIFO planted in its place cannot stall the camera.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        if (fd >= 0)
            ::close(fd);
        if (!started)
            started = true;
        return;
    }
    if (!started) {
        // Lines already there are counted, so that numbers in messages match the file, but not applied.
        started = true;
        device = status.st_dev;
        inode = status.st_ino;
        skipUntil = status.st_size;
    } else if (status.st_dev != device || status.st_ino != inode || status.st_size < offset) {
        device = status.st_dev;
        inode = status.st_ino;
        offset = 0;
        skipUntil = 0;
        partial.clear();
        overlong = false;
        lineNumber = 0;
    }
    char chunk[4096];
    const std::uint64_t linesBefore = lineNumber;
    // Bounded per look: a file that grows without end cannot hold the thread.
    for (int reads = 0; reads < 64 && offset < status.st_size; ++reads) {
        const ssize_t got = ::pread(fd, chunk, sizeof chunk, offset);
        if (got <= 0)
            break;
        Consume(chunk, static_cast<std::size_t>(got));
        offset += got;
    }
    ::close(fd);
    if (lineNumber != linesBefore)
        Acknowledge();
}

bool WriteFileReplacing(const std::string& target, const std::string& text)
{
    const std::string temporary = target + ".tmp";
    ::unlink(temporary.c_str());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (written && ::rename(temporary.c_str(), target.c_str()) == 0)
        return true;
    ::unlink(temporary.c_str());
    return false;
}

void ControlFile::Acknowledge() const
{
    WriteFileReplacing(path + ".applied", std::to_string(lineNumber) + "\n");
}

void ControlFile::Consume(const char* data, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] != '\n') {
            if (partial.size() < MaxLineLength)
                partial.push_back(data[i]);
            else
                overlong = true;
            continue;
        }
        ++lineNumber;
        const bool beforeWatching = offset + static_cast<off_t>(i) < skipUntil;
        if (!beforeWatching && overlong)
            std::fprintf(stderr, "Virtual camera control file '%s', line %llu: line longer than %zu characters ignored.\n",
                         path.c_str(), static_cast<unsigned long long>(lineNumber), MaxLineLength);
        else if (!beforeWatching)
            apply(partial, lineNumber);
        partial.clear();
        overlong = false;
    }
}

} }
