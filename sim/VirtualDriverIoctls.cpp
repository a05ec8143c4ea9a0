// The ioctls of the virtual CSI-2 driver's V4L2 nodes, and its frame threads.
#include "base/NamedThread.h"
#include "sim/CameraMap.h"
#include "sim/Scheduler.h"
#include "sim/VirtualSystemState.h"

#include <linux/videodev2.h>

#include <sys/ioctl.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

namespace QEL { namespace Sim {

namespace {


template <class T>
T& As(void* argument)
{
    return *static_cast<T*>(argument);
}

void Copy(char* target, std::size_t size, const std::string& text)
{
    std::memset(target, 0, size);
    std::memcpy(target, text.data(), std::min(size - 1, text.size())); // NOLINT(bugprone-not-null-terminated-result): zeroed above
}

}

int VirtualSystem::Ioctl(int fd, unsigned long request, void* argument)
{
    std::unique_lock<std::mutex> lock(mutex);
    auto file = Find(fd);
    if (!file) {
        lock.unlock();
        return ::ioctl(fd, request, argument);
    }
    if (file->kind != OpenFile::Node || (!argument && _IOC_SIZE(request) != 0))
        return Fail(file->kind != OpenFile::Node ? ENOTTY : EFAULT);
    Camera& camera = *file->camera;
    auto failing = camera.failingIoctls.find(request);
    if (failing != camera.failingIoctls.end()) {
        const int error = failing->second.first;
        if (--failing->second.second == 0)
            camera.failingIoctls.erase(failing);
        return Fail(error);
    }
    if (request == VIDIOC_R_I2C || request == VIDIOC_W_I2C) {
        // The control bus is the camera's own; the model lock is not held during a transfer.
        lock.unlock();
        return I2CIoctl(camera, request, argument);
    }
    if (request == VIDIOC_STREAMOFF_EX) {
        if (!camera.streaming)
            return Fail(EINVAL);
        StopStreaming(camera, lock);
        SetAttribute(camera.streamoff, "1\n");
        Complete(camera.streamoff, Fault::StreamOffHangs, camera);
        return 0;
    }
    if (request == VIDIOC_FLUSH_FRAMES) {
        for (auto& [index, buffer] : camera.buffers)
            buffer.queued = false;
        camera.incoming.clear();
        camera.done.clear();
        SetAttribute(camera.flush, "1\n");
        Complete(camera.flush, Fault::FlushHangs, camera);
        return 0;
    }
    const int result = BufferIoctl(camera, request, argument);
    if (result != -2)
        return result;
    return NodeIoctl(camera, request, argument);
}

// The progress attribute reaches "2" a moment later, and says so.
void VirtualSystem::Complete(const std::shared_ptr<Attribute>& attribute, Fault hang, Camera& camera)
{
    if (camera.faults.Take(hang))
        return;
    std::weak_ptr<Attribute> target = attribute;
    scheduler->After(std::chrono::milliseconds(5), [this, target] {
        std::lock_guard<std::mutex> lock(mutex);
        if (auto attribute = target.lock())
            SetAttribute(attribute, "2\n");
    });
}

int VirtualSystem::I2CIoctl(Camera& camera, unsigned long request, void* argument)
{
    auto& access = As<qel_i2c_access>(argument);
    if (access.address_size != 2 || access.register_address > 0xFFFF || !access.data)
        return Fail(EINVAL);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (camera.availability->value[0] == '0')
            return Fail(ENODEV);
    }
    auto* data = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(access.data));
    const auto address = static_cast<std::uint16_t>(access.register_address);
    if (request == VIDIOC_R_I2C) {
        const int error = camera.firmware->ReadCCI(address, data, access.data_size);
        return error ? Fail(error) : 0;
    }
    const int error = camera.firmware->WriteCCI(address, data, access.data_size);
    if (error)
        return Fail(error);
    // The bytes that went over the bus: the register address and the data.
    if (access.data_size == 2 && camera.faults.Take(Fault::ShortSizeWrite))
        return 3;
    return static_cast<int>(access.data_size + 2);
}

int VirtualSystem::NodeIoctl(Camera& camera, unsigned long request, void* argument)
{
    const CameraDescription& c = camera.description;
    switch (request) {
    case VIDIOC_QUERYCAP: {
        auto& cap = As<v4l2_capability>(argument);
        std::memset(&cap, 0, sizeof cap);
        Copy(reinterpret_cast<char*>(cap.driver), sizeof cap.driver,
             description.board == "tegra" ? "qel_csi2_tegra" : "qel_csi2");
        Copy(reinterpret_cast<char*>(cap.card), sizeof cap.card, "Virtual CSI-2 camera");
        Copy(reinterpret_cast<char*>(cap.bus_info), sizeof cap.bus_info, "platform:" + camera.node);
        cap.version = DriverVersion();
        cap.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
        cap.capabilities = cap.device_caps | V4L2_CAP_DEVICE_CAPS;
        return 0;
    }
    case VIDIOC_ENUMINPUT: {
        auto& input = As<v4l2_input>(argument);
        const bool imx6 = description.board == "nitrogen" || description.board == "wandboard";
        static const char* const imx6Inputs[] = {"CSI IC MEM", "CSI MEM"};
        if (input.index >= (imx6 ? 2u : 1u))
            return Fail(EINVAL);
        const std::uint32_t index = input.index;
        std::memset(&input, 0, sizeof input);
        input.index = index;
        Copy(reinterpret_cast<char*>(input.name), sizeof input.name, imx6 ? imx6Inputs[index] : "Camera");
        input.type = V4L2_INPUT_TYPE_CAMERA;
        return 0;
    }
    case VIDIOC_S_INPUT:
        if (As<int>(argument) < 0 || As<int>(argument) > 1)
            return Fail(EINVAL);
        camera.input = static_cast<std::uint32_t>(As<int>(argument));
        return 0;
    case VIDIOC_S_FMT: {
        auto& format = As<v4l2_format>(argument);
        auto& pix = format.fmt.pix;
        if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || pix.pixelformat != QEL_PIX_FMT_TP31 ||
            pix.width < description.ipuXMin || pix.width > description.ipuXMax ||
            (description.ipuXInc && pix.width % description.ipuXInc) || pix.height < description.ipuYMin ||
            pix.height > description.ipuYMax || (description.ipuYInc && pix.height % description.ipuYInc) ||
            camera.streaming)
            return Fail(EINVAL);
        pix.bytesperline = 0;
        pix.sizeimage = pix.width * pix.height;
        camera.frameSize = pix.sizeimage;
        camera.ipuX = pix.width;
        camera.ipuY = pix.height;
        return 0;
    }
    case VIDIOC_STREAMON_EX:
        if (camera.streaming || camera.frameSize == 0)
            return Fail(EINVAL);
        camera.firmware->ForgetPreparedBuffers();
        StartStreaming(camera);
        return 0;
    case VIDIOC_STREAMSTAT: {
        auto& stat = As<qel_stream_statistics>(argument);
        stat = qel_stream_statistics{camera.framesSent, camera.packetCrcErrors, camera.framesLost, camera.incomplete, 0, 0};
        // The current rate: the frames done within the last second, over the time they span.
        const auto now = std::chrono::steady_clock::now();
        while (!camera.recentFrames.empty() && now - camera.recentFrames.front() > std::chrono::seconds(1))
            camera.recentFrames.pop_front();
        if (camera.recentFrames.size() >= 2) {
            stat.current_frames_count = camera.recentFrames.size() - 1;
            stat.current_frames_interval = static_cast<std::uint64_t>(
                std::chrono::duration_cast<std::chrono::microseconds>(camera.recentFrames.back() -
                                                                      camera.recentFrames.front())
                    .count());
        }
        return 0;
    }
    case VIDIOC_RESET_STREAMSTAT:
        camera.framesSent = camera.framesLost = camera.incomplete = camera.packetCrcErrors = 0;
        camera.recentFrames.clear();
        return 0;
    case VIDIOC_G_STATISTICS_CAPABILITIES:
        As<std::uint64_t>(argument) = description.statisticsCapabilities;
        return 0;
    case VIDIOC_G_MIN_ANNOUNCED_FRAMES:
        As<std::uint32_t>(argument) = description.minAnnouncedFrames;
        return 0;
    case VIDIOC_G_SUPPORTED_LANE_COUNTS:
        As<std::uint32_t>(argument) = c.laneMask;
        return 0;
    case VIDIOC_G_CSI_CLOCK_RANGES: {
        auto& ranges = As<qel_clock_ranges>(argument);
        std::memset(&ranges, 0, sizeof ranges);
        for (int lanes = 1; lanes <= 4; ++lanes)
            if (c.laneMask & (1u << (lanes - 1)))
                ranges.lanes[lanes - 1] = qel_clock_range{1, {}, c.clockMinHz, c.clockMaxHz};
        return 0;
    }
    case VIDIOC_G_IPU_RESTRICTIONS:
        As<qel_ipu_restrictions>(argument) =
            qel_ipu_restrictions{1, {}, description.ipuXMin, description.ipuXMax, description.ipuXInc,
                                 1, {}, description.ipuYMin, description.ipuYMax, description.ipuYInc};
        return 0;
    case VIDIOC_G_GENCP_BUFFER_SIZES:
        As<qel_gencp_buffer_sizes>(argument) = qel_gencp_buffer_sizes{c.gencpInBufferSize, c.gencpOutBufferSize};
        return 0;
    case VIDIOC_G_DATA_IDENTIFIERS:
        As<qel_data_identifiers>(argument) =
            qel_data_identifiers{{(std::uint64_t{1} << 49) | (std::uint64_t{1} << 42) | (std::uint64_t{1} << 43), 0, 0, 0}};
        return 0;
    case VIDIOC_G_I2C_CLOCK_FREQ:
        As<std::uint32_t>(argument) = c.busSpeed;
        return 0;
    case VIDIOC_G_DRIVER_INFO: {
        if (!description.driverInfo)
            return Fail(ENOTTY);
        static const std::map<std::string, std::array<std::uint8_t, 3>> boards = {
            {"nitrogen", {0, 0, 0}}, {"wandboard", {0, 0, 1}}, {"tegra", {1, 1, 0}},
            {"imx8", {0, 2, 0}},     {"imx8m", {0, 3, 0}},     {"imx8x", {0, 4, 0}}};
        const auto& board = boards.at(description.board);
        As<qel_driver_info>(argument) =
            qel_driver_info{board[0], board[1], board[2], 0, DriverVersion(), description.interfaceVersion,
                            QEL_DRVCAP_USRPTR | QEL_DRVCAP_MMAP, description.usrptrAlignment};
        return 0;
    }
    case VIDIOC_G_CSI_CONFIG:
        As<qel_csi_config>(argument) = camera.csiConfig;
        return 0;
    case VIDIOC_S_CSI_CONFIG: {
        auto& config = As<qel_csi_config>(argument);
        if (config.lane_count >= 1 && config.lane_count <= 4 && (c.laneMask & (1u << (config.lane_count - 1))))
            camera.csiConfig.lane_count = config.lane_count;
        if (config.clock_hz >= c.clockMinHz && config.clock_hz <= c.clockMaxHz)
            camera.csiConfig.clock_hz = config.clock_hz;
        config = camera.csiConfig;
        return 0;
    }
    default:
        return Fail(ENOTTY);
    }
}

std::uint32_t VirtualSystem::DriverVersion() const
{
    unsigned major = 0, minor = 0, patch = 0;
    std::sscanf(description.driverVersion.c_str(), "%u.%u.%u", &major, &minor, &patch);
    return major << 16 | minor << 8 | patch;
}

// Buffers: returns -2 for a request that is no buffer request.
int VirtualSystem::BufferIoctl(Camera& camera, unsigned long request, void* argument)
{
    switch (request) {
    case VIDIOC_REQBUFS: {
        auto& req = As<v4l2_requestbuffers>(argument);
        if (req.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || req.memory != V4L2_MEMORY_USERPTR || camera.streaming)
            return Fail(EINVAL);
        if (req.count == 0 && camera.rendering >= 0)
            return Fail(EBUSY);
        camera.userBuffers = req.count;
        if (req.count == 0)
            for (auto it = camera.buffers.begin(); it != camera.buffers.end();)
                it = it->second.memory == V4L2_MEMORY_USERPTR ? camera.buffers.erase(it) : std::next(it);
        return 0;
    }
    case VIDIOC_MEM_ALLOC: {
        auto& req = As<qel_buffer_request>(argument);
        if (req.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || (req.memory != 1 && req.memory != 2) ||
            camera.buffers.count(req.index) || camera.frameSize == 0)
            return Fail(EINVAL);
        Camera::Buffer buffer;
        buffer.memory = req.memory;
        if (req.memory == V4L2_MEMORY_MMAP) {
            buffer.mappingSize = (camera.frameSize + PageSize - 1) / PageSize * PageSize;
            void* memory = ::mmap(nullptr, buffer.mappingSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (memory == MAP_FAILED)
                return Fail(ENOMEM);
            buffer.mapping = static_cast<std::uint8_t*>(memory);
            buffer.length = camera.frameSize;
        }
        camera.buffers[req.index] = buffer;
        return 0;
    }
    case VIDIOC_MEM_FREE: {
        auto& req = As<qel_buffer_request>(argument);
        auto it = camera.buffers.find(req.index);
        if (it == camera.buffers.end() || it->second.queued)
            return Fail(EINVAL);
        if (camera.rendering == static_cast<std::int64_t>(req.index))
            return Fail(EBUSY);
        if (it->second.mapping)
            ::munmap(it->second.mapping, it->second.mappingSize);
        camera.buffers.erase(it);
        return 0;
    }
    case VIDIOC_QUERYBUF: {
        auto& buf = As<v4l2_buffer>(argument);
        auto it = camera.buffers.find(buf.index);
        if (buf.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || it == camera.buffers.end() || !it->second.mapping)
            return Fail(EINVAL);
        buf.memory = V4L2_MEMORY_MMAP;
        buf.length = static_cast<std::uint32_t>(it->second.length);
        if (buf.index > 0xFFFFFFFFu / PageSize)
            return Fail(EINVAL);
        buf.m.offset = static_cast<std::uint32_t>(buf.index * PageSize);
        buf.flags = it->second.queued ? V4L2_BUF_FLAG_QUEUED : 0;
        return 0;
    }
    case VIDIOC_QBUF: {
        auto& buf = As<v4l2_buffer>(argument);
        if (buf.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return Fail(EINVAL);
        if (buf.memory == V4L2_MEMORY_USERPTR) {
            if (buf.index >= camera.userBuffers || buf.m.userptr == 0 || buf.length < camera.frameSize ||
                (description.usrptrAlignment > 1 && buf.m.userptr % description.usrptrAlignment != 0))
                return Fail(EINVAL);
            Camera::Buffer& buffer = camera.buffers[buf.index];
            if (buffer.memory == V4L2_MEMORY_MMAP)
                return Fail(EINVAL);
            buffer.memory = V4L2_MEMORY_USERPTR;
            buffer.userptr = buf.m.userptr;
            buffer.length = buf.length;
        }
        auto it = camera.buffers.find(buf.index);
        if (it == camera.buffers.end() || it->second.memory != buf.memory || it->second.queued)
            return Fail(EINVAL);
        it->second.queued = true;
        camera.incoming.push_back(buf.index);
        if (camera.awaitingBuffer)
            camera.framesChanged.notify_all();
        return 0;
    }
    case VIDIOC_DQBUF: {
        auto& buf = As<v4l2_buffer>(argument);
        std::uint64_t error = 0;
        if (camera.faults.Take(Fault::DQBUFError, &error))
            return Fail(static_cast<int>(error ? error : EIO));
        if (camera.done.empty())
            return Fail(EAGAIN);
        const Camera::Done done = camera.done.front();
        camera.done.pop_front();
        Camera::Buffer& buffer = camera.buffers[done.index];
        buffer.queued = false;
        buf.index = done.index;
        buf.memory = buffer.memory;
        buf.flags = done.flags;
        buf.bytesused = done.bytesUsed;
        buf.field = V4L2_FIELD_NONE;
        buf.timestamp = done.timestamp;
        buf.sequence = done.sequence;
        buf.length = static_cast<std::uint32_t>(buffer.length);
        if (buffer.memory == V4L2_MEMORY_USERPTR)
            buf.m.userptr = buffer.userptr;
        return 0;
    }
    default:
        return -2;
    }
}

// Streaming.

void VirtualSystem::StartStreaming(Camera& camera)
{
    camera.streaming = true;
    camera.stopFrames = false;
    camera.sequence = 0;
    SetAttribute(camera.streamoff, "0\n");
    camera.frameThread = Base::StartNamedThread("vcam-frames", [this, &camera] { FrameLoop(camera); });
}

void VirtualSystem::StopStreaming(Camera& camera, std::unique_lock<std::mutex>& lock)
{
    camera.stopFrames = true;
    camera.framesChanged.notify_all();
    std::thread thread = std::move(camera.frameThread);
    lock.unlock();
    if (thread.joinable())
        thread.join();
    lock.lock();
    camera.streaming = false;
    // Buffers the camera never filled come back unused.
    for (std::uint32_t index : camera.incoming) {
        timeval now{};
        gettimeofday(&now, nullptr);
        camera.done.push_back({index, QEL_BUF_FLAG_UNUSED, 0, camera.sequence++, now});
    }
    camera.incoming.clear();
    NotifyWaiters(&camera);
}

void VirtualSystem::FrameLoop(Camera& camera)
{
    auto next = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex);
    while (!camera.stopFrames) {
        const double rate = camera.firmware->FrameRate();
        const bool acquiring = camera.firmware->IsAcquiring() && camera.availability->value[0] != '0';
        if (!acquiring) {
            camera.framesChanged.wait_for(lock, std::chrono::milliseconds(2));
            next = std::chrono::steady_clock::now();
            continue;
        }
        if (rate > 0) {
            // The sensor runs at its rate whether or not a buffer waits.
            if (camera.framesChanged.wait_until(lock, next, [&] { return camera.stopFrames; }))
                break;
            next += std::chrono::microseconds(static_cast<std::int64_t>(1e6 / rate));
        } else if (camera.incoming.empty()) {
            camera.awaitingBuffer = true;
            camera.framesChanged.wait_for(lock, std::chrono::milliseconds(2));
            camera.awaitingBuffer = false;
            continue;
        }
        std::uint64_t gap = 0;
        if (camera.faults.Take(Fault::BlockIDGap, &gap))
            camera.blockID += gap;
        const std::uint64_t blockID = ++camera.blockID;
        if (camera.incoming.empty()) {
            ++camera.framesLost;
            continue;
        }
        const std::uint32_t index = camera.incoming.front();
        camera.incoming.pop_front();
        Camera::Buffer& buffer = camera.buffers[index];
        std::uint8_t* memory = buffer.memory == V4L2_MEMORY_MMAP
                                   ? buffer.mapping
                                   : reinterpret_cast<std::uint8_t*>(buffer.userptr);
        const std::size_t size = camera.frameSize;
        timeval stamp{};
        gettimeofday(&stamp, nullptr);
        const std::uint64_t nanoseconds =
            static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           std::chrono::steady_clock::now().time_since_epoch())
                                           .count());
        // Render without the model lock: the consumer's memory is the camera's until dequeued.
        camera.rendering = index;
        lock.unlock();
        const bool complete = camera.firmware->RenderFrame(memory, size, blockID, nanoseconds);
        std::uint32_t flags = complete ? QEL_BUF_FLAG_VALID : QEL_BUF_FLAG_INVALID_31;
        if (camera.faults.Take(Fault::BadLeaderKey) && camera.firmware->LeaderSize() && size >= 4)
            std::memset(memory, 0xEE, 4);
        if (camera.faults.Take(Fault::BadTrailerKey)) {
            const std::uint64_t trailer = camera.firmware->LeaderSize() + camera.firmware->Geometry().payloadSize;
            if (camera.firmware->TrailerSize() && trailer + 4 <= size)
                std::memset(memory + trailer, 0xEE, 4);
        }
        if (camera.faults.Take(Fault::ZeroFrame))
            std::memset(memory, 0, size);
        if (camera.faults.Take(Fault::IncompleteFrame))
            flags = QEL_BUF_FLAG_INVALID_31;
        if (camera.faults.Take(Fault::IncompleteFrame28))
            flags = QEL_BUF_FLAG_INVALID_28;
        if (camera.faults.Take(Fault::UnknownFrameState))
            flags = 0;
        const bool badPacket = camera.faults.Take(Fault::PacketCRCError);
        if (badPacket)
            flags = QEL_BUF_FLAG_INVALID_31;
        lock.lock();
        camera.packetCrcErrors += badPacket ? 1 : 0;
        camera.rendering = -1;
        if (flags != QEL_BUF_FLAG_VALID)
            ++camera.incomplete;
        ++camera.framesSent;
        camera.recentFrames.push_back(std::chrono::steady_clock::now());
        if (camera.recentFrames.size() > 100000)
            camera.recentFrames.pop_front();
        camera.done.push_back({index, flags | V4L2_BUF_FLAG_DONE, static_cast<std::uint32_t>(size), camera.sequence++, stamp});
        NotifyWaiters(&camera);
    }
}

} }
