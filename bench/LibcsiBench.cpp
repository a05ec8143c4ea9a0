// Frames through libcsi in each memory mode, side by side with a minimal raw
// V4L2 capture loop over the same virtual driver (the floor), and GenCP
// register reads against the limit of the modelled control bus.
#include "entry/TransportLayerHandler.h"
#include "libcsi/Config.h"
#include "libcsi/OsSeam.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "sim/CameraMap.h"
#include "sim/VirtualSystem.h"

#include <linux/videodev2.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

using namespace QEL;

namespace {

constexpr int Frames = 120;
constexpr int Buffers = 4;
const char* kCamera = "[camera0]\nwidth = 2592\nheight = 1944\nwidth_max = 2592\nheight_max = 1944\n"
                      "frame_rate = 0\nbus_speed = 400000\nmode_switch_delay_ms = 1\n";

double CpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double WallSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

constexpr int Rounds = 5;

struct Row {
    std::string name;
    double fps;
    double cpuMsPerFrame;
};

// The floor: select, DQBUF and QBUF on the virtual node, nothing else.
Row RawLoop(Sim::VirtualSystem& system)
{
    auto g = system.GetFirmware(0).Geometry();
    int fd = system.Open("/dev/video0", 0);
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = g.ipuX;
    format.fmt.pix.height = g.ipuY;
    format.fmt.pix.pixelformat = QEL_PIX_FMT_TP31;
    system.Ioctl(fd, VIDIOC_S_FMT, &format);
    for (std::uint32_t i = 0; i < Buffers; ++i) {
        qel_buffer_request request{i, 1, 1};
        system.Ioctl(fd, VIDIOC_MEM_ALLOC, &request);
        v4l2_buffer buf{};
        buf.index = i;
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        system.Ioctl(fd, VIDIOC_QBUF, &buf);
    }
    system.Ioctl(fd, VIDIOC_STREAMON_EX, nullptr);
    system.GetFirmware(0).StartAcquisition();
    const double wall = WallSeconds(), cpu = CpuSeconds();
    for (int n = 0; n < Frames;) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(fd, &readSet);
        system.Select(fd + 1, &readSet, nullptr, nullptr, nullptr);
        v4l2_buffer buf{};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        if (system.Ioctl(fd, VIDIOC_DQBUF, &buf) < 0)
            continue;
        ++n;
        system.Ioctl(fd, VIDIOC_QBUF, &buf);
    }
    const double wallUsed = WallSeconds() - wall, cpuUsed = CpuSeconds() - cpu;
    system.GetFirmware(0).StopAcquisition();
    std::uint32_t timeout = 0;
    system.Ioctl(fd, VIDIOC_STREAMOFF_EX, &timeout);
    system.Ioctl(fd, VIDIOC_FLUSH_FRAMES, nullptr);
    for (std::uint32_t i = 0; i < Buffers; ++i) {
        qel_buffer_request request{i, 1, 1};
        system.Ioctl(fd, VIDIOC_MEM_FREE, &request);
    }
    system.Close(fd);
    return {"raw V4L2 loop (floor)", Frames / wallUsed, cpuUsed * 1000 / Frames};
}

struct Consumer {
    std::mutex mutex;
    std::condition_variable changed;
    int delivered = 0;
    device_handle_t* device = nullptr;

    static void OnFrame(void* context, frame_handle_t* frame, lib_frame_transfer*, std::uint64_t, std::uint32_t)
    {
        auto* self = static_cast<Consumer*>(context);
        libcsi_queue_frame(self->device, frame, &Consumer::OnFrame, self);
        std::lock_guard<std::mutex> lock(self->mutex);
        ++self->delivered;
        self->changed.notify_all();
    }
};

Row ThroughLibcsi(Sim::VirtualSystem& system, const char* name, bool userptr, bool allocate)
{
    LibCSIImpl::TheConfig().enableUserptr = userptr;
    device_handle_t* device = nullptr;
    libcsi_open_device(0, &device);
    auto g = system.GetFirmware(0).Geometry();
    std::vector<lib_frame_transfer> transfers(Buffers);
    std::vector<frame_handle_t*> handles(Buffers);
    std::vector<void*> memory;
    for (int i = 0; i < Buffers; ++i) {
        lib_frame_transfer& t = transfers[i];
        t.m_nLeaderSize = Sim::CameraMap::MaxLeaderSize;
        t.m_nPayloadSize = g.payloadSize;
        t.m_nTrailerSize = Sim::CameraMap::MaxTrailerSize;
        if (allocate) {
            libcsi_alloc_and_announce_frame(device, g.ipuX, g.ipuY, &t, &handles[i]);
            continue;
        }
        void* block = std::aligned_alloc(4096, (g.ipuX * g.ipuY + 4095) / 4096 * 4096);
        std::memset(block, 0, g.ipuX * g.ipuY);
        memory.push_back(block);
        t.m_pLeader = reinterpret_cast<std::uintptr_t>(block);
        t.m_pPayload = t.m_pLeader + t.m_nLeaderSize;
        t.m_pTrailer = t.m_pPayload + t.m_nPayloadSize;
        libcsi_announce_frame(device, g.ipuX, g.ipuY, &t, &handles[i]);
    }
    Consumer consumer;
    consumer.device = device;
    for (frame_handle_t* handle : handles)
        libcsi_queue_frame(device, handle, &Consumer::OnFrame, &consumer);
    libcsi_start_stream(device, 42);
    system.GetFirmware(0).StartAcquisition();
    const double wall = WallSeconds(), cpu = CpuSeconds();
    {
        std::unique_lock<std::mutex> lock(consumer.mutex);
        consumer.changed.wait(lock, [&] { return consumer.delivered >= Frames; });
    }
    const double wallUsed = WallSeconds() - wall, cpuUsed = CpuSeconds() - cpu;
    system.GetFirmware(0).StopAcquisition();
    libcsi_stop_stream(device, 100);
    libcsi_flush_frames(device);
    for (frame_handle_t* handle : handles)
        libcsi_revoke_frame(device, handle);
    libcsi_close_device(device);
    for (void* block : memory)
        std::free(block);
    return {name, Frames / wallUsed, cpuUsed * 1000 / Frames};
}


// The whole producer: the GenTL functions a consumer calls, on the same
// camera. libcsi is handed to the producer for the row and taken back after.
Row ThroughGenTL(const char* name, bool allocate)
{
    libcsi_deinit();
    auto tl = Base::TransportLayerHandler::Get();
    TL_HANDLE system = nullptr;
    IF_HANDLE interface = nullptr;
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE event = nullptr;
    bool8_t changed = 0;
    char id[256] = {};
    std::size_t size = sizeof id;
    tl->GCInitLib();
    tl->TLOpen(&system);
    tl->TLOpenInterface(system, "LorunCSIInterface_0x0", &interface);
    tl->IFUpdateDeviceList(interface, &changed, 100);
    tl->IFGetDeviceID(interface, 0, id, &size);
    tl->IFOpenDevice(interface, id, DEVICE_ACCESS_CONTROL, &device);
    size = sizeof id;
    tl->DevGetDataStreamID(device, 0, id, &size);
    tl->DevOpenDataStream(device, id, &stream);
    std::size_t payload = 0;
    INFO_DATATYPE type = 0;
    size = sizeof payload;
    tl->DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size);
    std::vector<void*> memory;
    std::vector<BUFFER_HANDLE> buffers(Buffers);
    for (auto& buffer : buffers) {
        if (allocate) {
            tl->DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer);
        } else {
            memory.push_back(std::aligned_alloc(4096, (payload + 4095) / 4096 * 4096));
            tl->DSAnnounceBuffer(stream, memory.back(), payload, nullptr, &buffer);
        }
        tl->DSQueueBuffer(stream, buffer);
    }
    tl->GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event);
    tl->DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE);
    const double wall = WallSeconds(), cpu = CpuSeconds();
    int frames = 0;
    while (frames < Frames) {
        EVENT_NEW_BUFFER_DATA data{};
        size = sizeof data;
        if (tl->EventGetData(event, &data, &size, 2000) != GC_ERR_SUCCESS)
            break;
        ++frames;
        tl->DSQueueBuffer(stream, data.BufferHandle);
    }
    const double wallUsed = WallSeconds() - wall, cpuUsed = CpuSeconds() - cpu;
    tl->DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
    tl->DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
    for (BUFFER_HANDLE buffer : buffers)
        tl->DSRevokeBuffer(stream, buffer, nullptr, nullptr);
    tl->DSClose(stream);
    tl->DevClose(device);
    tl->GCCloseLib();
    for (void* block : memory)
        std::free(block);
    libcsi_init();
    libcsi_update_device_list();
    if (frames < Frames)
        std::fprintf(stderr, "%s: only %d frames\n", name, frames);
    return {name, frames / wallUsed, cpuUsed * 1000 / std::max(frames, 1)};
}
}

int main()
{
    auto system = std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(kCamera));
    Os::Install(system);
    LibCSIImpl::TheConfig().logLevel = 0;
    libcsi_init();
    libcsi_update_device_list();
    auto g = system->GetFirmware(0).Geometry();

    // The paths run in turn, round after round, so that a slow spell of a shared
    // machine weighs on all of them alike; the table gives the medians.
    std::vector<std::vector<Row>> rounds;
    for (int round = 0; round < Rounds; ++round) {
        std::vector<Row> rows;
        rows.push_back(RawLoop(*system));
        rows.push_back(ThroughLibcsi(*system, "libcsi MMAP, announced (copy)", false, false));
        rows.push_back(ThroughLibcsi(*system, "libcsi MMAP, allocated", false, true));
        rows.push_back(ThroughLibcsi(*system, "libcsi USERPTR_EXT", true, false));
        rows.push_back(ThroughLibcsi(*system, "libcsi USERPTR_INT", true, true));
        LibCSIImpl::TheConfig().enableUserptr = false;
        rows.push_back(ThroughGenTL("GenTL, announced buffers (copy)", false));
        rows.push_back(ThroughGenTL("GenTL, allocated buffers", true));
        rounds.push_back(rows);
    }
    auto median = [](std::vector<double> values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    };

    std::printf("Frames of %ux%u Mono8 (%.2f MP, %u bytes as sent), %d frames each, %d buffers; "
                "medians of %d interleaved rounds\n\n",
                g.width, g.height, g.width * g.height / 1e6, g.ipuX * g.ipuY, Frames, Buffers, Rounds);
    std::printf("| %-32s | %8s | %13s | %14s | %14s |\n", "path", "fps", "CPU ms/frame", "fps vs floor",
                "CPU vs floor");
    std::printf("|%s|%s|%s|%s|%s|\n", std::string(34, '-').c_str(), std::string(10, '-').c_str(),
                std::string(15, '-').c_str(), std::string(16, '-').c_str(), std::string(16, '-').c_str());
    for (std::size_t path = 0; path < rounds[0].size(); ++path) {
        std::vector<double> fps, cpu, fpsRatio, cpuRatio;
        for (const auto& rows : rounds) {
            fps.push_back(rows[path].fps);
            cpu.push_back(rows[path].cpuMsPerFrame);
            fpsRatio.push_back(rows[path].fps / rows[0].fps);
            cpuRatio.push_back(rows[path].cpuMsPerFrame / rows[0].cpuMsPerFrame);
        }
        std::printf("| %-32s | %8.1f | %13.2f | %14.2f | %14.2f |\n", rounds[0][path].name.c_str(), median(fps),
                    median(cpu), median(fpsRatio), median(cpuRatio));
    }

    // Register reads of 4 bytes through GenCP over the 400 kHz bus.
    LibCSIImpl::TheConfig().enableUserptr = false;
    device_handle_t* device = nullptr;
    libcsi_open_device(0, &device);
    std::vector<std::uint8_t> command(28, 0), ack(1024);
    const std::uint64_t address = Sim::CameraMap::Width;
    std::uint16_t length = 4;
    command[0] = 0x00;
    command[1] = 0x01;
    command[8] = 0x00;
    command[9] = 0x40;
    command[10] = 0x00;
    command[11] = 0x08;
    command[12] = 12;
    std::memcpy(&command[16], &address, 8);
    std::memcpy(&command[26], &length, 2);
    const std::uint32_t crc = Sim::GenCPCrc32(command.data() + 6, command.size() - 6);
    std::memcpy(&command[2], &crc, 4);
    const std::uint64_t bytesBefore = system->GetFirmware(0).GetBusBytes();
    const double start = WallSeconds();
    int reads = 0;
    while (WallSeconds() - start < 2.0) {
        std::uint64_t size = ack.size();
        if (libcsi_write_gencp(device, command.data(), command.size(), 1000) == LIBCSI_OK &&
            libcsi_read_gencp(device, ack.data(), &size, 1000) == LIBCSI_OK)
            ++reads;
    }
    const double elapsed = WallSeconds() - start;
    const double bytesPerRead = static_cast<double>(system->GetFirmware(0).GetBusBytes() - bytesBefore) / reads;
    // Nine clocks a byte: the rate at which the bus alone would carry these transfers.
    const double limit = 400000.0 / (9.0 * bytesPerRead);
    std::printf("\n| %-32s | %10s | %14s | %10s |\n", "GenCP register reads (4 bytes)", "reads/s", "bus bytes/read",
                "vs bus limit");
    std::printf("| %-32s | %10.1f | %14.1f | %10.2f |\n", "400 kHz control bus", reads / elapsed, bytesPerRead,
                (reads / elapsed) / limit);
    libcsi_close_device(device);
    libcsi_deinit();
    Os::Install(nullptr);
    return 0;
}
