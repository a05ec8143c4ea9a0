#pragma once

#include "base/GenTL.h"
#include "base/Info.h"

namespace QEL { namespace CSI {

// The interface's info, a function of the command alone: the System answers
// its interface queries with it before any interface object exists.
Base::InfoPtr GetStaticInterfaceInfo(INTERFACE_INFO_CMD command);

} }
