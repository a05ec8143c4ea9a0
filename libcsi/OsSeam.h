#pragma once

// The one road from libcsi to the operating system. The default backend is
// the real system; the virtual camera is a second backend.
#include <sys/select.h>
#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace QEL { namespace Os {

class Backend {
public:
    virtual ~Backend() = default;
    virtual int Open(const char* path, int flags) = 0;
    virtual int Close(int fd) = 0;
    virtual int Ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual ssize_t Read(int fd, void* buffer, std::size_t size) = 0;
    virtual off_t Lseek(int fd, off_t offset, int whence) = 0;
    virtual int Select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) = 0;
    virtual void* Mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) = 0;
    virtual int Munmap(void* address, std::size_t length) = 0;
    // Entry names of a folder, without "." and ".."; an empty result when it cannot be read.
    virtual std::vector<std::string> ListDirectory(const char* path) = 0;
};

// The real system calls.
Backend& RealBackend();

// Picks the backend at first use from the process's configuration; returns
// null to stay on the real system. Layers above libcsi (the virtual camera)
// register one when they are loaded; the seam itself knows none of them.
using BackendChooser = std::shared_ptr<Backend> (*)();
void RegisterBackendChooser(BackendChooser chooser);

// The backend in force: chosen once, at first use, by the registered
// chooser; the real system when there is none or it declines.
Backend& Current();

// For tests: put a backend in force, or with null go back to the real system.
void Install(std::shared_ptr<Backend> backend);

} }
