#pragma once

// Counters libcsi keeps for diagnosis that no API function reports; read by
// the tests, which otherwise go through the public header only.
#include "libcsi/include/libcsi/libcsi.h"

#include <cstdint>

namespace QEL { namespace LibCSIImpl {

// Frames the camera sent that never arrived as valid ones since the stream
// started (gaps in the block IDs); guarded by the statistics mutex.
std::uint64_t DroppedFrameCount(device_handle_t* device);

} }
