#pragma once

// An Aravis device whose memory reads and writes go where a test says, so
// that Aravis' GenICam evaluator can run a document over our ports. The
// device itself is the consumer tool's.
#include "client/AravisPortDevice.h"

namespace QEL { namespace Base { class Port; } }

namespace AravisTest {

using Memory = LorunClient::PortMemory;

// A device over `memory`; the caller unrefs it.
inline ArvDevice* NewDevice(Memory memory) { return LorunClient::NewPortDevice(std::move(memory)); }

// A device whose memory is a module's port, as GCReadPort and GCWritePort
// reach it; a failure is a failed access.
ArvDevice* DeviceOverPort(QEL::Base::Port& port);

}
