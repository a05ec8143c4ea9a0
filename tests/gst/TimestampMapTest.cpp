// Device times onto running time: steady, never ahead of the arrival, and
// starting anew when the device clock jumps.
#include "gst/TimestampMap.h"

#include <gtest/gtest.h>

namespace {

constexpr std::int64_t Ms = 1000000;

TEST(TimestampMap, FollowsTheDeviceClockWithTheShortestTransfer)
{
    LorunGst::TimestampMap map(1000 * Ms);
    const std::uint64_t device = 5000000000000ull; // the device's own epoch
    // Transfers of 3, 1 and 2 ms: after the 1 ms one, stamps are device time + the 1 ms offset.
    EXPECT_EQ(100 * Ms, map.Map(device, 100 * Ms));
    EXPECT_EQ(118 * Ms, map.Map(device + 20 * Ms, 118 * Ms));
    EXPECT_EQ(138 * Ms, map.Map(device + 40 * Ms, 139 * Ms)) << "a late arrival keeps the device's spacing";
    EXPECT_EQ(158 * Ms, map.Map(device + 60 * Ms, 158 * Ms));
    EXPECT_EQ(0u, map.Jumps());
}

TEST(TimestampMap, JumpsStartAnewAndStampsNeverGoBack)
{
    LorunGst::TimestampMap map(1000 * Ms);
    const std::uint64_t device = 1000 * Ms;
    EXPECT_EQ(50 * Ms, map.Map(device, 50 * Ms));
    EXPECT_EQ(70 * Ms, map.Map(device + 20 * Ms, 70 * Ms));
    // The device clock went back (a reset): stamped at arrival.
    EXPECT_EQ(90 * Ms, map.Map(0, 90 * Ms));
    EXPECT_EQ(1u, map.Jumps());
    // It leapt ahead: no stamp after the arrival, and none before the last.
    EXPECT_EQ(110 * Ms, map.Map(3600000 * Ms, 110 * Ms));
    EXPECT_GT(map.Map(3600000 * Ms - 50 * Ms, 111 * Ms), 110 * Ms) << "a frame older than the last one";
    // A device clock that stands still: after maxAge, anew.
    LorunGst::TimestampMap still(100 * Ms);
    still.Map(7, 0);
    EXPECT_EQ(500 * Ms, still.Map(7, 500 * Ms));
    EXPECT_EQ(1u, still.Jumps());
}

TEST(TimestampMap, AResetForgetsTheOffset)
{
    LorunGst::TimestampMap map(1000 * Ms);
    map.Map(0, 500 * Ms);
    map.Reset();
    EXPECT_EQ(10 * Ms, map.Map(0, 10 * Ms)) << "a new stream may start earlier in running time";
}

}
