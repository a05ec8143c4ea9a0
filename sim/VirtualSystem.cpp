#include "sim/VirtualSystem.h"

#include "base/StaticTls.h"
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "sim/CameraMap.h"
#include "sim/ControlFile.h"
#include "sim/Scheduler.h"
#include "sim/StateFile.h"
#include "sim/TextEncoding.h"
#include "sim/VirtualSystemState.h"

#include <boost/format.hpp>
#include <linux/videodev2.h>

#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace QEL { namespace Sim {

namespace {


// The pipe on which the calling thread sleeps in Select.
struct ThreadWaiter {
    int fds[2] = {-1, -1};
    std::vector<const void*> frameSources; // kept, so that a Select allocates nothing
    ThreadWaiter()
    {
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0)
            fds[0] = fds[1] = -1;
    }
    ~ThreadWaiter()
    {
        if (fds[0] >= 0) {
            ::close(fds[0]);
            ::close(fds[1]);
        }
    }
    void Drain() const
    {
        char sink[64];
        while (::read(fds[0], sink, sizeof sink) > 0) {
        }
    }
};

ThreadWaiter& Waiter()
{
    LORUN_STATIC_TLS thread_local ThreadWaiter waiter;
    return waiter;
}

}

std::shared_ptr<VirtualSystem> VirtualSystem::FromFile(const std::string& path)
{
    return std::make_shared<VirtualSystem>(SystemDescription::FromFile(path));
}

VirtualSystem::VirtualSystem(const SystemDescription& system) : description(system), scheduler(new Scheduler)
{
    if (!description.state.empty())
        stateFile = std::make_unique<StateFile>(description.state, description.identity);
    for (std::size_t i = 0; i < description.cameras.size(); ++i) {
        auto camera = std::make_unique<Camera>();
        camera->index = i;
        camera->description = description.cameras[i];
        camera->firmware = std::make_unique<CameraFirmware>(camera->description, camera->faults);
        // Until a host writes its own, the camera knows the restrictions of this board.
        const std::uint32_t restrictions[] = {description.ipuXMin, description.ipuXMax, description.ipuXInc,
                                              description.ipuYMin, description.ipuYMax, description.ipuYInc};
        for (int r = 0; r < 6; ++r)
            camera->firmware->WriteValue(CameraMap::Sirm + 56 + std::uint64_t{4} * r, restrictions[r]);
        camera->node = camera->description.node;
        if (stateFile) {
            LoadKeptValues(*camera);
            camera->firmware->SetKeeper([file = stateFile.get(), name = camera->description.name](
                                            const CameraFirmware::KeptValues& kept) { file->Save(name, kept); });
        }
        cameras.push_back(std::move(camera));
    }
    BuildTree();
    if (!description.control.empty())
        controlFile = std::make_unique<ControlFile>(description.control, [this](const std::string& line,
                                                                                std::uint64_t number) {
            try {
                ApplyCommand(line);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "Virtual camera control file '%s', line %llu: %s\n", description.control.c_str(),
                             static_cast<unsigned long long>(number), e.what());
            }
        });
}

void VirtualSystem::LoadKeptValues(Camera& camera)
{
    CameraFirmware& firmware = *camera.firmware;
    const std::string& name = camera.description.name;
    for (const std::uint64_t refused : firmware.ReplaceKeptValues(stateFile->Load(name)))
        std::fprintf(stderr, "Virtual camera state file '%s': [%s] register 0x%llx refused its value; ignored\n",
                     stateFile->Path().c_str(), name.c_str(), static_cast<unsigned long long>(refused));
}

VirtualSystem::~VirtualSystem()
{
    controlFile.reset();
    scheduler.reset();
    std::unique_lock<std::mutex> lock(mutex);
    for (auto& camera : cameras) {
        if (camera->streaming)
            StopStreaming(*camera, lock);
        for (auto& [index, buffer] : camera->buffers)
            if (buffer.mapping)
                ::munmap(buffer.mapping, buffer.mappingSize);
    }
    for (auto& [fd, file] : files)
        ::close(fd);
}

void VirtualSystem::AddAttribute(const std::string& path, const std::string& value, Camera*)
{
    auto attribute = std::make_shared<Attribute>();
    attribute->value = value;
    attributes[path] = attribute;
}

void VirtualSystem::BuildTree()
{
    static const std::map<std::string, std::string> machines = {
        {"nitrogen", "Boundary Devices i.MX6 Quad Nitrogen6x Board"}, {"wandboard", "Wandboard i.MX6 Quad Board"},
        {"tegra", "NVIDIA Jetson Xavier NX Developer Kit"},          {"imx8", "NXP i.MX8QM MEK"},
        {"imx8m", "NXP i.MX8MPlus EVK board"},                       {"imx8x", "NXP i.MX8QXP MEK"}};
    AddAttribute("/sys/devices/soc0/machine", machines.at(description.board) + "\n");
    for (auto& camera : cameras) {
        const CameraDescription& c = camera->description;
        const std::string node = "/sys/class/video4linux/" + camera->node;
        AddAttribute(node + "/if_name", std::string(QEL_CSI2_INTERFACE_NAME) + "\n");
        AddAttribute(node + "/bus_info", (boost::format("%1%:%2%:%3$x\n") % c.port % c.bus % c.address).str());
        AddAttribute(node + "/availability", c.available ? "1\n" : "0\n");
        AddAttribute(node + "/streamoff", "0\n");
        AddAttribute(node + "/flush", "0\n");
        camera->availability = attributes[node + "/availability"];
        camera->streamoff = attributes[node + "/streamoff"];
        camera->flush = attributes[node + "/flush"];
        const std::string client = ClientPath(c);
        AddAttribute(client + "driver_version", description.driverVersion + "\n");
        AddAttribute(client + "cci_register_layout_version", std::to_string(c.cciLayoutVersion) + "\n");
        AddAttribute(client + "device_capabilities", std::to_string(c.deviceCapabilities) + "\n");
        auto encoded = [&](const std::string& text) { return EncodeCameraString(text, c.stringEncoding) + "\n"; };
        AddAttribute(client + "device_guid", encoded(c.guid));
        AddAttribute(client + "manufacturer_name", encoded(c.manufacturer));
        AddAttribute(client + "model_name", encoded(c.model));
        AddAttribute(client + "family_name", encoded(c.family));
        AddAttribute(client + "device_version", encoded(c.deviceVersion));
        AddAttribute(client + "manufacturer_info", encoded(c.manufacturerInfo));
        AddAttribute(client + "serial_number", encoded(c.serialNumber));
        AddAttribute(client + "user_defined_name", encoded(c.userDefinedName));
    }
}

void VirtualSystem::NotifyWaiters(const Camera* frames)
{
    const char byte = 1;
    for (const Waiting& waiting : waiters) {
        const auto& sources = *waiting.frameSources;
        if (!frames || std::find(sources.begin(), sources.end(), frames) != sources.end())
            (void)!::write(waiting.wakeFd, &byte, 1);
    }
}

void VirtualSystem::SetAttribute(const std::shared_ptr<Attribute>& attribute, const std::string& value)
{
    attribute->value = value;
    ++attribute->version;
    NotifyWaiters();
}

std::shared_ptr<VirtualSystem::OpenFile> VirtualSystem::Find(int fd)
{
    auto it = files.find(fd);
    return it == files.end() ? nullptr : it->second;
}

// Descriptors.

int VirtualSystem::Open(const char* path, int flags)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto file = std::make_shared<OpenFile>();
    auto attribute = attributes.find(path);
    if (attribute != attributes.end()) {
        file->kind = OpenFile::AttributeFile;
        file->attribute = attribute->second;
    } else {
        for (auto& camera : cameras)
            if (std::string(path) == "/dev/" + camera->node) {
                std::uint64_t error = 0;
                if (camera->faults.Take(Fault::NodeOpenFailure, &error))
                    return Fail(error ? static_cast<int>(error) : EBUSY);
                // A camera another process has open is busy, as the driver of a real one answers.
                if (camera->nodeOpens == 0 && stateFile) {
                    if (!stateFile->Claim(camera->index))
                        return Fail(EBUSY);
                    LoadKeptValues(*camera); // what the process that had it open last left
                }
                file->kind = OpenFile::Node;
                file->camera = camera.get();
            }
        if (!file->camera) {
            if (std::strncmp(path, "/sys/", 5) == 0 || std::strncmp(path, "/dev/video", 10) == 0)
                return Fail(ENOENT);
            return ::open(path, flags);
        }
    }
    // A real descriptor reserves the number, so virtual and real ones never clash.
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (file->camera && file->camera->nodeOpens == 0 && stateFile)
            stateFile->Release(file->camera->index);
        return -1;
    }
    if (file->camera)
        ++file->camera->nodeOpens;
    files[fd] = file;
    return fd;
}

int VirtualSystem::Close(int fd)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto file = files.find(fd);
    if (file != files.end() && file->second->kind == OpenFile::Node && --file->second->camera->nodeOpens == 0 &&
        stateFile)
        stateFile->Release(file->second->camera->index);
    files.erase(fd);
    return ::close(fd);
}

ssize_t VirtualSystem::Read(int fd, void* buffer, std::size_t size)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto file = Find(fd);
    if (!file)
        return ::read(fd, buffer, size);
    if (file->kind != OpenFile::AttributeFile)
        return Fail(EINVAL);
    const std::string& value = file->attribute->value;
    file->read = true;
    file->seenVersion = file->attribute->version;
    if (file->offset >= static_cast<off_t>(value.size()))
        return 0;
    const std::size_t n = std::min(size, value.size() - static_cast<std::size_t>(file->offset));
    std::memcpy(buffer, value.data() + file->offset, n);
    file->offset += static_cast<off_t>(n);
    return static_cast<ssize_t>(n);
}

off_t VirtualSystem::Lseek(int fd, off_t offset, int whence)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto file = Find(fd);
    if (!file)
        return ::lseek(fd, offset, whence);
    if (file->kind != OpenFile::AttributeFile || whence != SEEK_SET || offset < 0)
        return Fail(EINVAL);
    file->offset = offset;
    return offset;
}

std::vector<std::string> VirtualSystem::ListDirectory(const char* path)
{
    std::string prefix = std::string(path);
    while (!prefix.empty() && prefix.back() == '/')
        prefix.pop_back();
    prefix += "/";
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> names;
    for (const auto& entry : attributes)
        if (entry.first.compare(0, prefix.size(), prefix) == 0) {
            std::string name = entry.first.substr(prefix.size());
            name = name.substr(0, name.find('/'));
            if (std::find(names.begin(), names.end(), name) == names.end())
                names.push_back(name);
        }
    if (prefix == "/dev/")
        for (auto& camera : cameras)
            names.push_back(camera->node);
    if (names.empty() && prefix.compare(0, 5, "/sys/") != 0)
        return Os::RealBackend().ListDirectory(path);
    return names;
}

// Waiting.

bool VirtualSystem::IsReadable(const OpenFile& file)
{
    if (file.kind == OpenFile::Node)
        return !file.camera->done.empty();
    return true; // an attribute can always be read
}

bool VirtualSystem::HasException(const OpenFile& file)
{
    // As sysfs_notify: a change after the last read is reported until the value is read again.
    return file.kind == OpenFile::AttributeFile && file.read && file.attribute->version != file.seenVersion;
}

int VirtualSystem::Select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout)
{
    fd_set realRead, realWrite, realExcept;
    FD_ZERO(&realRead);
    FD_ZERO(&realWrite);
    FD_ZERO(&realExcept);
    std::vector<int> virtualRead, virtualExcept;
    int realCount = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (int fd = 0; fd < nfds; ++fd) {
            const bool r = readSet && FD_ISSET(fd, readSet), w = writeSet && FD_ISSET(fd, writeSet),
                       e = exceptSet && FD_ISSET(fd, exceptSet);
            if (!r && !w && !e)
                continue;
            if (files.count(fd)) {
                if (r)
                    virtualRead.push_back(fd);
                if (e)
                    virtualExcept.push_back(fd);
                continue;
            }
            ++realCount;
            if (r)
                FD_SET(fd, &realRead);
            if (w)
                FD_SET(fd, &realWrite);
            if (e)
                FD_SET(fd, &realExcept);
        }
    }
    if (virtualRead.empty() && virtualExcept.empty())
        return ::select(nfds, readSet, writeSet, exceptSet, timeout);

    const auto deadline = timeout ? std::chrono::steady_clock::now() + std::chrono::seconds(timeout->tv_sec) +
                                        std::chrono::microseconds(timeout->tv_usec)
                                  : std::chrono::steady_clock::time_point::max();
    ThreadWaiter& waiter = Waiter();
    {
        std::lock_guard<std::mutex> lock(mutex);
        waiter.frameSources.clear();
        for (int fd : virtualRead)
            if (auto file = Find(fd); file && file->kind == OpenFile::Node)
                waiter.frameSources.push_back(file->camera);
        waiters.push_back({waiter.fds[1], &waiter.frameSources});
    }
    // Registered for the whole call: a wake-up that comes while this thread
    // looks at the descriptors stays in its pipe and ends the next sleep.
    struct Unregister {
        VirtualSystem& system;
        int wakeFd;
        ~Unregister()
        {
            std::lock_guard<std::mutex> lock(system.mutex);
            auto& list = system.waiters;
            list.erase(std::find_if(list.begin(), list.end(), [&](const Waiting& w) { return w.wakeFd == wakeFd; }));
        }
    } unregister{*this, waiter.fds[1]};
    for (;;) {
        std::vector<int> readyRead, readyExcept;
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (int fd : virtualRead)
                if (auto file = Find(fd); file && IsReadable(*file))
                    readyRead.push_back(fd);
            for (int fd : virtualExcept)
                if (auto file = Find(fd); file && HasException(*file))
                    readyExcept.push_back(fd);
        }
        fd_set r = realRead, w = realWrite, e = realExcept;
        int realReady = 0;
        if (realCount > 0) {
            timeval zero{0, 0};
            realReady = ::select(nfds, &r, &w, &e, &zero);
            if (realReady < 0)
                return Fail(errno);
        }
        const int total = realReady + static_cast<int>(readyRead.size() + readyExcept.size());
        const bool expired = std::chrono::steady_clock::now() >= deadline;
        if (total > 0 || expired) {
            if (readSet)
                *readSet = r;
            if (writeSet)
                *writeSet = w;
            if (exceptSet)
                *exceptSet = e;
            for (int fd : readyRead)
                FD_SET(fd, readSet);
            for (int fd : readyExcept)
                FD_SET(fd, exceptSet);
            return total;
        }
        // Sleep on the real descriptors and this thread's wake-up pipe.
        fd_set sleepRead = realRead, sleepWrite = realWrite, sleepExcept = realExcept;
        FD_SET(waiter.fds[0], &sleepRead);
        timeval remaining{};
        timeval* limit = nullptr;
        if (timeout) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
            left = std::max(left, std::chrono::microseconds(0));
            remaining.tv_sec = static_cast<time_t>(left.count() / 1000000);
            remaining.tv_usec = static_cast<suseconds_t>(left.count() % 1000000);
            limit = &remaining;
        }
        const int slept = ::select(std::max(nfds, waiter.fds[0] + 1), &sleepRead, &sleepWrite, &sleepExcept, limit);
        const int error = errno;
        waiter.Drain();
        if (slept < 0)
            return Fail(error);
    }
}

// Memory.

void* VirtualSystem::Mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto file = Find(fd);
    if (!file)
        return ::mmap(address, length, protection, flags, fd, offset);
    if (file->kind != OpenFile::Node || offset % static_cast<off_t>(PageSize) != 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    if (offset < 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    auto it = file->camera->buffers.find(static_cast<std::uint32_t>(static_cast<std::uint64_t>(offset) / PageSize));
    if (it == file->camera->buffers.end() || !it->second.mapping || length > it->second.mappingSize) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    return it->second.mapping;
}

int VirtualSystem::Munmap(void* address, std::size_t length)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& camera : cameras)
        for (auto& [index, buffer] : camera->buffers)
            if (buffer.mapping == address)
                return 0; // the driver keeps the memory until VIDIOC_MEM_FREE
    return ::munmap(address, length);
}

// Control.

CameraFirmware& VirtualSystem::GetFirmware(std::size_t camera) { return *cameras.at(camera)->firmware; }

std::string VirtualSystem::ClientPath(const CameraDescription& camera)
{
    return (boost::format("/sys/class/i2c-dev/i2c-%1%/device/%1%-00%2$02x/") % camera.bus % camera.address).str();
}

void VirtualSystem::SetIdentity(std::size_t camera, const std::string& name, const std::string& value)
{
    static const std::set<std::string> identities = {"device_guid", "manufacturer_name", "model_name",
                                                     "family_name", "device_version", "manufacturer_info",
                                                     "serial_number", "user_defined_name"};
    if (!identities.count(name))
        throw std::invalid_argument("no identity string '" + name + "'");
    std::lock_guard<std::mutex> lock(mutex);
    const CameraDescription& description = cameras.at(camera)->description;
    SetAttribute(attributes.at(ClientPath(description) + name),
                 EncodeCameraString(value, description.stringEncoding) + "\n");
}

void VirtualSystem::SetAvailable(std::size_t camera, bool available)
{
    std::lock_guard<std::mutex> lock(mutex);
    Camera& target = *cameras.at(camera);
    // A camera plugged in again starts from power-on, whatever it was doing when pulled.
    if (available && target.availability->value != "1\n")
        target.firmware->PowerCycle();
    SetAttribute(target.availability, available ? "1\n" : "0\n");
}

void VirtualSystem::InjectFault(std::size_t camera, Fault fault, std::uint32_t count, std::uint64_t value)
{
    cameras.at(camera)->faults.Arm(fault, count, value);
}

bool VirtualSystem::IsFaultArmed(std::size_t camera, Fault fault) const
{
    return cameras.at(camera)->faults.IsArmed(fault);
}

void VirtualSystem::FailIoctl(std::size_t camera, unsigned long request, int error, std::uint32_t count)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto& failing = cameras.at(camera)->failingIoctls;
    if (count == 0)
        failing.erase(request);
    else
        failing[request] = {error, count};
}

void VirtualSystem::FailIoctl(std::size_t camera, const std::string& name, int error, std::uint32_t count)
{
    static const std::map<std::string, unsigned long> requests = {
        {"VIDIOC_QUERYCAP", VIDIOC_QUERYCAP},
        {"VIDIOC_S_FMT", VIDIOC_S_FMT},
        {"VIDIOC_REQBUFS", VIDIOC_REQBUFS},
        {"VIDIOC_QUERYBUF", VIDIOC_QUERYBUF},
        {"VIDIOC_QBUF", VIDIOC_QBUF},
        {"VIDIOC_DQBUF", VIDIOC_DQBUF},
        {"VIDIOC_ENUMINPUT", VIDIOC_ENUMINPUT},
        {"VIDIOC_S_INPUT", VIDIOC_S_INPUT},
        {"VIDIOC_R_I2C", VIDIOC_R_I2C},
        {"VIDIOC_W_I2C", VIDIOC_W_I2C},
        {"VIDIOC_MEM_ALLOC", VIDIOC_MEM_ALLOC},
        {"VIDIOC_MEM_FREE", VIDIOC_MEM_FREE},
        {"VIDIOC_FLUSH_FRAMES", VIDIOC_FLUSH_FRAMES},
        {"VIDIOC_STREAMSTAT", VIDIOC_STREAMSTAT},
        {"VIDIOC_RESET_STREAMSTAT", VIDIOC_RESET_STREAMSTAT},
        {"VIDIOC_STREAMON_EX", VIDIOC_STREAMON_EX},
        {"VIDIOC_STREAMOFF_EX", VIDIOC_STREAMOFF_EX},
        {"VIDIOC_G_STATISTICS_CAPABILITIES", VIDIOC_G_STATISTICS_CAPABILITIES},
        {"VIDIOC_G_MIN_ANNOUNCED_FRAMES", VIDIOC_G_MIN_ANNOUNCED_FRAMES},
        {"VIDIOC_G_SUPPORTED_LANE_COUNTS", VIDIOC_G_SUPPORTED_LANE_COUNTS},
        {"VIDIOC_G_CSI_CLOCK_RANGES", VIDIOC_G_CSI_CLOCK_RANGES},
        {"VIDIOC_G_IPU_RESTRICTIONS", VIDIOC_G_IPU_RESTRICTIONS},
        {"VIDIOC_G_GENCP_BUFFER_SIZES", VIDIOC_G_GENCP_BUFFER_SIZES},
        {"VIDIOC_G_DATA_IDENTIFIERS", VIDIOC_G_DATA_IDENTIFIERS},
        {"VIDIOC_G_I2C_CLOCK_FREQ", VIDIOC_G_I2C_CLOCK_FREQ},
        {"VIDIOC_G_DRIVER_INFO", VIDIOC_G_DRIVER_INFO},
        {"VIDIOC_G_CSI_CONFIG", VIDIOC_G_CSI_CONFIG},
        {"VIDIOC_S_CSI_CONFIG", VIDIOC_S_CSI_CONFIG},
    };
    auto request = requests.find(name);
    if (request == requests.end())
        throw std::invalid_argument("unknown ioctl '" + name + "'");
    FailIoctl(camera, request->second, error, count);
}

void VirtualSystem::ClearFaults(std::size_t camera)
{
    cameras.at(camera)->faults.Clear();
    std::lock_guard<std::mutex> lock(mutex);
    cameras.at(camera)->failingIoctls.clear();
}

std::uint64_t VirtualSystem::GetFramesSent(std::size_t camera)
{
    std::lock_guard<std::mutex> lock(mutex);
    return cameras.at(camera)->framesSent;
}

std::uint64_t VirtualSystem::GetFramesLost(std::size_t camera)
{
    std::lock_guard<std::mutex> lock(mutex);
    return cameras.at(camera)->framesLost;
}

bool VirtualSystem::IsWatched(const std::string& path)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto attribute = attributes.find(path);
    if (attribute == attributes.end())
        return false;
    for (const auto& entry : files)
        if (entry.second->attribute == attribute->second && entry.second->read)
            return true;
    return false;
}

bool VirtualSystem::IsStreaming(std::size_t camera)
{
    std::lock_guard<std::mutex> lock(mutex);
    return cameras.at(camera)->streaming;
}

} }
