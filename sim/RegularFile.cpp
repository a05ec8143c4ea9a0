#include "sim/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace QEL { namespace Sim {

FileRead ReadWholeFile(const std::string& path, std::uint64_t limit, bool followLinks, std::string& text, int& error)
{
    text.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW));
    if (fd < 0) {
        error = errno;
        return FileRead::CannotOpen;
    }
    struct stat status {};
    const bool regular = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    const bool small = regular && static_cast<std::uint64_t>(status.st_size) <= limit;
    if (small) {
        text.resize(static_cast<std::size_t>(status.st_size));
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t got = ::read(fd, &text[done], text.size() - done);
            if (got <= 0)
                break;
            done += static_cast<std::size_t>(got);
        }
        text.resize(done);
    }
    ::close(fd);
    return !regular ? FileRead::NotRegular : !small ? FileRead::TooLarge : FileRead::Done;
}

std::string ReadRegularFile(const std::string& path, std::uint64_t limit, const char* what)
{
    std::string text;
    int error = 0;
    switch (ReadWholeFile(path, limit, true, text, error)) {
    case FileRead::Done:
        return text;
    case FileRead::CannotOpen:
        throw std::invalid_argument(std::string("cannot read ") + what + " '" + path + "': " + std::strerror(error));
    case FileRead::NotRegular:
        throw std::invalid_argument(std::string(what) + " '" + path + "' is not a regular file");
    case FileRead::TooLarge:
        break;
    }
    throw std::invalid_argument(std::string(what) + " '" + path + "' is larger than " + std::to_string(limit) +
                                " bytes");
}

} }
