#pragma once

#include "base/Info.h"
#include "framework/XMLDescription.h"

#include <cstdint>

namespace QEL { namespace Base {

// The port info that no module changes: byte order and access.
InfoPtr GetBasicPortInfo(PORT_INFO_CMD cmd, bool bigEndian, std::uint32_t accessMode);

// GCGetPortURLInfo about one XML description.
InfoPtr GetURLInfo(const XMLDescription& description, URL_INFO_CMD cmd);

} }
