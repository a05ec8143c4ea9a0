#pragma once

#include "base/Object.h"

#include <cstdint>
#include <optional>
#include <string>

namespace QEL {

// Link settings of one CSI-2 port; each value is optional.
class PortSettings : public virtual System::Object {
public:
    PortSettings(std::optional<std::uint8_t> laneCount, std::optional<std::uint32_t> clockFrequency);

    bool HasLaneCount() const { return laneCount.has_value(); }
    std::uint8_t GetLaneCount() const;
    bool HasClockFrequency() const { return clockFrequency.has_value(); }
    std::uint32_t GetClockFrequency() const;

private:
    std::optional<std::uint8_t> laneCount;
    std::optional<std::uint32_t> clockFrequency;
};

struct RegSetting {
    std::uint32_t address = 0;
    std::int32_t value = 0;
    std::string name;
};

}
