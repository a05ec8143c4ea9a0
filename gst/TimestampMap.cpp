#include "gst/TimestampMap.h"

namespace LorunGst {

std::int64_t TimestampMap::Map(std::uint64_t deviceNs, std::int64_t arrivalNs)
{
    // Device times are taken modulo 2^63: only differences matter.
    const std::int64_t device = static_cast<std::int64_t>(deviceNs & 0x7FFFFFFFFFFFFFFFull);
    const std::int64_t seen = arrivalNs - device;
    if (!synced) {
        offset = seen;
        stamped = false;
        synced = true;
    } else if (seen < offset) {
        offset = seen; // a shorter transfer than any before, or the device clock ran ahead
    } else if (seen - offset > maxAge) {
        offset = seen; // the device clock went back, or stood still
        ++jumps;
    }
    std::int64_t stamp = device + offset;
    if (stamped && stamp <= last)
        stamp = last + 1;
    last = stamp;
    stamped = true;
    return stamp;
}

}
