#pragma once

#include "libcsi/OsSeam.h"

#include <memory>

namespace QEL { namespace Sim {

// The virtual camera for the description file at `description`, or null when
// none is to be used: no path, a real CSI-2 driver present, or an unusable
// file (the reason goes to standard error).
std::shared_ptr<Os::Backend> ChooseVirtualBackend(const char* description);

} }
