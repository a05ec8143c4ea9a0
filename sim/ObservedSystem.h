#pragma once

// A virtual camera whose ioctls can be watched: on their way in, what libcsi
// asks of the driver, and on their way out, what a successful call answered.
#include "libcsi/OsSeam.h"
#include "sim/VirtualSystem.h"

#include <functional>
#include <memory>
#include <utility>

namespace QEL { namespace Sim {

class ObservedSystem : public Os::Backend {
public:
    using Observer = std::function<void(unsigned long request, const void* argument)>;

    // The observers run on libcsi's threads; they must guard what they keep.
    ObservedSystem(std::shared_ptr<VirtualSystem> system, Observer before, Observer after = nullptr)
        : system(std::move(system)), before(std::move(before)), after(std::move(after))
    {
    }

    int Open(const char* path, int flags) override { return system->Open(path, flags); }
    int Close(int fd) override { return system->Close(fd); }
    int Ioctl(int fd, unsigned long request, void* argument) override
    {
        if (before)
            before(request, argument);
        const int result = system->Ioctl(fd, request, argument);
        if (after && result >= 0)
            after(request, argument);
        return result;
    }
    ssize_t Read(int fd, void* buffer, std::size_t size) override { return system->Read(fd, buffer, size); }
    off_t Lseek(int fd, off_t offset, int whence) override { return system->Lseek(fd, offset, whence); }
    int Select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) override
    {
        return system->Select(nfds, readSet, writeSet, exceptSet, timeout);
    }
    void* Mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) override
    {
        return system->Mmap(address, length, protection, flags, fd, offset);
    }
    int Munmap(void* address, std::size_t length) override { return system->Munmap(address, length); }
    std::vector<std::string> ListDirectory(const char* path) override { return system->ListDirectory(path); }

private:
    std::shared_ptr<VirtualSystem> system;
    Observer before, after;
};

} }
