#pragma once

#include "sim/CameraDescription.h"

#include <string>

namespace QEL { namespace Sim {

// The GenApi document (schema 1.1) of a virtual camera; its registers are
// those of CameraMap.
std::string CameraXML(const CameraDescription& camera);

} }
