#pragma once

// Device timestamps onto the pipeline's running time. A frame cannot arrive
// before it was taken, so the smallest "arrival - device time" seen so far is
// the clocks' offset plus the shortest transfer; a frame is stamped with its
// device time plus that offset. A device clock that jumps (back, or far
// ahead of what the arrivals allow) starts the mapping anew at the arrival,
// and the stamps never go backwards while the mapping lasts.
#include <cstdint>

namespace LorunGst {

class TimestampMap {
public:
    // `maxAge`: how far before its arrival a frame may be stamped before the
    // device clock is taken to have jumped (nanoseconds).
    explicit TimestampMap(std::int64_t maxAge) : maxAge(maxAge) {}

    // Both in nanoseconds; returns the frame's running time.
    std::int64_t Map(std::uint64_t deviceNs, std::int64_t arrivalNs);
    void Reset() { synced = false; }
    // How many times the device clock jumped.
    std::uint64_t Jumps() const { return jumps; }

private:
    std::int64_t maxAge;
    bool synced = false;
    std::int64_t offset = 0; // running time minus device time
    std::int64_t last = 0;
    bool stamped = false;
    std::uint64_t jumps = 0;
};

}
