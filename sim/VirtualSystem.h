#pragma once

#include "libcsi/OsSeam.h"
#include "sim/CameraDescription.h"
#include "sim/CameraFirmware.h"
#include "sim/Faults.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

namespace QEL { namespace Sim {

class Scheduler;
class ControlFile;
class StateFile;

// The virtual camera seen from libcsi: a user-space model of the CSI-2 kernel
// driver (sysfs tree, V4L2 nodes, private ioctls, buffers, frame timing) over
// the firmware of each camera. It serves libcsi as an OS backend; paths and
// descriptors that are not its own pass to the real system.
class VirtualSystem : public Os::Backend, public std::enable_shared_from_this<VirtualSystem> {
public:
    static std::shared_ptr<VirtualSystem> FromFile(const std::string& path);
    explicit VirtualSystem(const SystemDescription& description);
    ~VirtualSystem() override;

    // The OS backend.
    int Open(const char* path, int flags) override;
    int Close(int fd) override;
    int Ioctl(int fd, unsigned long request, void* argument) override;
    ssize_t Read(int fd, void* buffer, std::size_t size) override;
    off_t Lseek(int fd, off_t offset, int whence) override;
    int Select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) override;
    void* Mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) override;
    int Munmap(void* address, std::size_t length) override;
    std::vector<std::string> ListDirectory(const char* path) override;

    // Control of the model, for tests and for users without hardware.
    std::size_t GetCameraCount() const { return cameras.size(); }
    CameraFirmware& GetFirmware(std::size_t camera);
    const SystemDescription& GetDescription() const { return description; }
    void SetAvailable(std::size_t camera, bool available);
    // Changes one identity string of the camera's I2C client, such as
    // "device_guid" or "serial_number", as when another camera is plugged in.
    void SetIdentity(std::size_t camera, const std::string& name, const std::string& value);
    void InjectFault(std::size_t camera, Fault fault, std::uint32_t count, std::uint64_t value = 0);
    // True while an injected fault has hits left: one that fired is no longer armed.
    bool IsFaultArmed(std::size_t camera, Fault fault) const;
    // Makes the named ioctl (its request number) fail with `error` the next `count` times.
    void FailIoctl(std::size_t camera, unsigned long request, int error, std::uint32_t count);
    // The same by the ioctl's name, such as "VIDIOC_DQBUF"; an unknown name throws.
    void FailIoctl(std::size_t camera, const std::string& name, int error, std::uint32_t count);
    void ClearFaults(std::size_t camera);
    // One line of the control file: "unplug CAMERA", "replug CAMERA",
    // "fault CAMERA NAME [COUNT [VALUE]]", "ioctl CAMERA VIDIOC_NAME ERRNO COUNT",
    // "identity CAMERA NAME VALUE", "clear CAMERA", "reset CAMERA" (the
    // settings back at the description's values); CAMERA is the name of the
    // camera's section. A bad line throws std::invalid_argument and changes nothing.
    void ApplyCommand(const std::string& line);
    // "report CAMERA": the camera's counters, "NAME = VALUE" a line, in FILE.report beside the control file.
    void Report(std::size_t camera);
    std::size_t CameraByName(const std::string& name) const;
    // Frames the camera produced, and those it lost for want of a queued buffer.
    std::uint64_t GetFramesSent(std::size_t camera);
    std::uint64_t GetFramesLost(std::size_t camera);
    bool IsStreaming(std::size_t camera);
    // True while a descriptor of the attribute at `path` is open and has been read,
    // so that a change of it would be signalled.
    bool IsWatched(const std::string& path);

private:
    struct Attribute;
    struct Camera;
    struct OpenFile;

    void BuildTree();
    static std::string ClientPath(const CameraDescription& camera);
    void AddAttribute(const std::string& path, const std::string& value, Camera* camera = nullptr);
    void SetAttribute(const std::shared_ptr<Attribute>& attribute, const std::string& value);
    // All waiters, or with `frames` only those waiting for that camera's frames.
    void NotifyWaiters(const Camera* frames = nullptr);
    std::shared_ptr<OpenFile> Find(int fd);
    int NodeIoctl(Camera& camera, unsigned long request, void* argument);
    int I2CIoctl(Camera& camera, unsigned long request, void* argument);
    int BufferIoctl(Camera& camera, unsigned long request, void* argument);
    void StartStreaming(Camera& camera);
    void StopStreaming(Camera& camera, std::unique_lock<std::mutex>& lock);
    void FrameLoop(Camera& camera);
    void Complete(const std::shared_ptr<Attribute>& attribute, Fault hang, Camera& camera);
    // Readiness of a virtual descriptor, under the model lock.
    bool IsReadable(const OpenFile& file);
    bool HasException(const OpenFile& file);
    std::uint32_t DriverVersion() const;
    // The camera's settings as the state file keeps them; values it refuses are reported.
    void LoadKeptValues(Camera& camera);

    const SystemDescription description;
    std::mutex mutex;
    std::vector<std::unique_ptr<Camera>> cameras;
    std::map<std::string, std::shared_ptr<Attribute>> attributes;
    std::map<int, std::shared_ptr<OpenFile>> files;
    // Threads in Select: the write end of each one's wake-up pipe, and the
    // cameras whose frames it waits for. As in the kernel, a frame wakes only
    // the threads polling that camera's node; attribute changes wake them all.
    struct Waiting {
        int wakeFd;
        const std::vector<const void*>* frameSources;
    };
    std::vector<Waiting> waiters;
    // What the cameras keep between processes, and which of them this process has open.
    std::unique_ptr<StateFile> stateFile;
    std::unique_ptr<Scheduler> scheduler;
    std::unique_ptr<ControlFile> controlFile; // last: its thread calls into everything above
};

} }
