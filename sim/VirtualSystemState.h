#pragma once

// The state behind VirtualSystem, shared by its source files.
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "sim/VirtualSystem.h"

#include <sys/time.h>

#include <cerrno>
#include <chrono>

namespace QEL { namespace Sim {

// Mappings are made in whole pages; buffer i's mmap offset is i pages, a
// cookie as V4L2 drivers hand out, which fits the 32-bit `m.offset`.
constexpr std::size_t PageSize = 4096;

// Fails a system call the way the kernel does: errno and -1.
inline int Fail(int error)
{
    errno = error;
    return -1;
}

struct VirtualSystem::Attribute {
    std::string value;
    std::uint64_t version = 0;
};

struct VirtualSystem::Camera {
    std::size_t index;
    CameraDescription description;
    FaultPlan faults;
    std::unique_ptr<CameraFirmware> firmware;
    std::string node;
    std::shared_ptr<Attribute> availability, streamoff, flush;
    std::map<unsigned long, std::pair<int, std::uint32_t>> failingIoctls;
    std::uint32_t nodeOpens = 0;             // descriptors of the node open in this process

    struct Buffer {
        std::uint32_t memory = 0; // 1 mapped, 2 user pointer
        std::uint8_t* mapping = nullptr;
        std::size_t mappingSize = 0;
        std::uintptr_t userptr = 0;
        std::size_t length = 0;
        bool queued = false;
    };
    std::map<std::uint32_t, Buffer> buffers;
    std::uint32_t userBuffers = 0;           // declared by VIDIOC_REQBUFS
    std::size_t frameSize = 0;               // set by VIDIOC_S_FMT
    std::uint32_t ipuX = 0, ipuY = 0;
    std::deque<std::uint32_t> incoming;      // queued, waiting for a frame
    struct Done {
        std::uint32_t index;
        std::uint32_t flags;
        std::uint32_t bytesUsed;
        std::uint32_t sequence;
        timeval timestamp;
    };
    std::deque<Done> done;                   // filled, waiting for VIDIOC_DQBUF
    bool streaming = false;
    bool stopFrames = false;
    // A free-running camera waits for a queued buffer: only then does VIDIOC_QBUF
    // wake the frame thread, which a paced camera would otherwise wake on every buffer.
    bool awaitingBuffer = false;
    std::condition_variable framesChanged;
    std::thread frameThread;
    std::uint64_t blockID = 0;
    std::uint32_t sequence = 0;
    std::uint64_t framesSent = 0, framesLost = 0, incomplete = 0, packetCrcErrors = 0;
    // When the frames of the last second were done: the driver's current rate.
    std::deque<std::chrono::steady_clock::time_point> recentFrames;
    std::uint32_t input = 0;
    std::int64_t rendering = -1;             // index of the buffer being filled
    qel_csi_config csiConfig{2, {}, 450000000};
};

struct VirtualSystem::OpenFile {
    enum Kind { AttributeFile, Node } kind;
    std::shared_ptr<Attribute> attribute;
    Camera* camera = nullptr;
    off_t offset = 0;
    bool read = false;
    std::uint64_t seenVersion = 0;
};

} }
