#pragma once

// An Aravis device whose memory reads and writes go where a test says, so
// that Aravis' GenICam evaluator can run a document over our ports.
#include <arv.h>

#include <cstdint>
#include <functional>

namespace AravisTest {

// Each returns false when the access failed.
using MemoryAccess = std::function<bool(std::uint64_t address, std::uint32_t size, void* buffer)>;

struct Memory {
    MemoryAccess read;
    MemoryAccess write;
};

// A device over `memory`; the caller unrefs it. One memory at a time: a new
// device replaces the memory of the last.
ArvDevice* NewDevice(Memory memory);

}


namespace QEL { namespace Base { class Port; } }

namespace AravisTest {

// A device whose memory is a module's port, as GCReadPort and GCWritePort
// reach it; a failure is a failed access.
ArvDevice* DeviceOverPort(QEL::Base::Port& port);

}
