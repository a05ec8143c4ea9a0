#include "support/PortSettings.h"

#include "base/BaseException.h"

namespace QEL {

PortSettings::PortSettings(std::optional<std::uint8_t> lanes, std::optional<std::uint32_t> clock)
    : laneCount(lanes), clockFrequency(clock)
{
    if (laneCount && (*laneCount < 1 || *laneCount > 4))
        throw Base::Exception("Invalid lane count passed.", GC_ERR_INVALID_PARAMETER);
    if (clockFrequency && *clockFrequency == 0)
        throw Base::Exception("Invalid clock frequency passed.", GC_ERR_INVALID_PARAMETER);
}

std::uint8_t PortSettings::GetLaneCount() const
{
    if (!laneCount)
        throw Base::Exception("No CSI lane count available.", GC_ERR_ERROR);
    return *laneCount;
}

std::uint32_t PortSettings::GetClockFrequency() const
{
    if (!clockFrequency)
        throw Base::Exception("No CSI clock frequency available.", GC_ERR_ERROR);
    return *clockFrequency;
}

}
