#include "support/SafeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace QEL { namespace Tools {

std::FILE* OpenFileForWriting(const std::string& path, bool append)
{
    // No O_TRUNC yet: what lies there is checked before anything of it is changed.
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0)
        return nullptr;
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return nullptr;
    }
    if ((!append && ::ftruncate(fd, 0) != 0) || (append && ::lseek(fd, 0, SEEK_END) < 0)) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return nullptr;
    }
    std::FILE* file = ::fdopen(fd, append ? "a+" : "w+");
    if (!file)
        ::close(fd);
    return file;
}

} }
