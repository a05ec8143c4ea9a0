#pragma once

// An Aravis device whose memory reads and writes go where its owner says, so
// that Aravis' GenICam evaluator runs a document over a GenTL port.
#include <arv.h>

#include <cstdint>
#include <functional>

namespace LorunClient {

// Each returns false when the access failed.
using MemoryAccess = std::function<bool(std::uint64_t address, std::uint32_t size, void* buffer)>;

struct PortMemory {
    MemoryAccess read;
    MemoryAccess write;
};

// A device over `memory`, kept with the device until its last unref.
ArvDevice* NewPortDevice(PortMemory memory);

}
