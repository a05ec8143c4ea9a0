#include "libcsi/OsSeam.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace QEL { namespace Os {

namespace {

class RealSystem : public Backend {
public:
    int Open(const char* path, int flags) override { return ::open(path, flags); }
    int Close(int fd) override { return ::close(fd); }
    int Ioctl(int fd, unsigned long request, void* argument) override { return ::ioctl(fd, request, argument); }
    ssize_t Read(int fd, void* buffer, std::size_t size) override { return ::read(fd, buffer, size); }
    off_t Lseek(int fd, off_t offset, int whence) override { return ::lseek(fd, offset, whence); }
    int Select(int nfds, fd_set* r, fd_set* w, fd_set* e, timeval* t) override { return ::select(nfds, r, w, e, t); }
    void* Mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) override
    {
        return ::mmap(address, length, protection, flags, fd, offset);
    }
    int Munmap(void* address, std::size_t length) override { return ::munmap(address, length); }
    std::vector<std::string> ListDirectory(const char* path) override
    {
        std::vector<std::string> names;
        DIR* folder = ::opendir(path);
        if (!folder)
            return names;
        while (dirent* entry = ::readdir(folder))
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                names.push_back(entry->d_name);
        ::closedir(folder);
        return names;
    }
};

std::mutex installLock;
std::shared_ptr<Backend> installed;
// Backends that were replaced stay alive: a thread may still be inside one.
std::vector<std::shared_ptr<Backend>> retired;
std::atomic<Backend*> current{nullptr};
std::once_flag chosen;
std::atomic<BackendChooser> chooser{nullptr};

}

Backend& RealBackend()
{
    static RealSystem* real = new RealSystem;
    return *real;
}

Backend& Current()
{
    std::call_once(chosen, [] {
        std::lock_guard<std::mutex> lock(installLock);
        if (!current.load()) {
            if (BackendChooser choose = chooser.load())
                installed = choose();
            current.store(installed ? installed.get() : &RealBackend());
        }
    });
    return *current.load(std::memory_order_acquire);
}

void RegisterBackendChooser(BackendChooser choose)
{
    chooser.store(choose);
}

void Install(std::shared_ptr<Backend> backend)
{
    std::call_once(chosen, [] {});
    std::lock_guard<std::mutex> lock(installLock);
    if (installed)
        retired.push_back(installed);
    installed = std::move(backend);
    current.store(installed ? installed.get() : &RealBackend(), std::memory_order_release);
}

} }
