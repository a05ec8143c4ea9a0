#pragma once

// A virtual camera whose ioctls a test can watch on their way in: it sees
// what libcsi asks of the driver, not what the driver makes of it.
#include "libcsi/OsSeam.h"
#include "sim/VirtualSystem.h"

#include <functional>
#include <memory>
#include <utility>

namespace LibcsiTest {

class ObservedSystem : public QEL::Os::Backend {
public:
    using Observer = std::function<void(unsigned long request, const void* argument)>;

    // The observer runs on libcsi's threads; it must guard what it keeps.
    ObservedSystem(std::shared_ptr<QEL::Sim::VirtualSystem> system, Observer observer)
        : system(std::move(system)), observer(std::move(observer))
    {
    }

    int Open(const char* path, int flags) override { return system->Open(path, flags); }
    int Close(int fd) override { return system->Close(fd); }
    int Ioctl(int fd, unsigned long request, void* argument) override
    {
        observer(request, argument);
        return system->Ioctl(fd, request, argument);
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
    std::shared_ptr<QEL::Sim::VirtualSystem> system;
    Observer observer;
};

}
