#include "listen/device/device_latency.h"

#include <gtest/gtest.h>

#include "listen/clock.h"

using vxlisten::DeviceLatency;
using vxlisten::SECOND;

TEST(DeviceLatency, ThreeUnderrunsInAShortTimeDoubleIt) {
    DeviceLatency latency;
    latency.noteOpened(0);
    EXPECT_FALSE(latency.noteUnderruns(0, 4 * SECOND));
    EXPECT_FALSE(latency.noteUnderruns(1, 5 * SECOND));
    EXPECT_FALSE(latency.noteUnderruns(2, 6 * SECOND));
    EXPECT_EQ(latency.milliseconds(), 80);
    EXPECT_TRUE(latency.noteUnderruns(3, 7 * SECOND));
    EXPECT_EQ(latency.milliseconds(), 160);
}

TEST(DeviceLatency, TheUnderrunsOfAStallCountAsOne) {
    DeviceLatency latency;
    latency.noteOpened(0);
    EXPECT_FALSE(latency.noteUnderruns(0, 4 * SECOND));
    for (std::uint64_t count = 1; count < 6; ++count) {
        EXPECT_FALSE(latency.noteUnderruns(count, 5 * SECOND));
    }
    EXPECT_FALSE(latency.noteUnderruns(9, 7 * SECOND));
    EXPECT_TRUE(latency.noteUnderruns(10, 9 * SECOND));
}

TEST(DeviceLatency, UnderrunsWhileTheDeviceGetsGoingDoNotCount) {
    DeviceLatency latency;
    latency.noteOpened(0);
    EXPECT_FALSE(latency.noteUnderruns(5, SECOND));
    EXPECT_FALSE(latency.noteUnderruns(5, 4 * SECOND));
    EXPECT_EQ(latency.milliseconds(), 80);
}

TEST(DeviceLatency, UnderrunsFarApartDoNotCountTogether) {
    DeviceLatency latency;
    latency.noteOpened(0);
    for (std::uint64_t count = 0; count < 10; ++count) {
        const auto now = static_cast<std::int64_t>(count + 1) * 15 * SECOND;
        EXPECT_FALSE(latency.noteUnderruns(count, now));
    }
}

TEST(DeviceLatency, ItGrowsToALimitAndNoFurther) {
    DeviceLatency latency;
    int times = 0;
    for (std::int64_t opened = 0; opened < 200 * SECOND; opened += 20 * SECOND) {
        latency.noteOpened(opened);
        for (std::uint64_t count = 0; count < 4; ++count) {
            const auto now = opened + static_cast<std::int64_t>(count + 3) * SECOND;
            times += latency.noteUnderruns(count, now) ? 1 : 0;
        }
    }
    EXPECT_EQ(times, 2);
    EXPECT_EQ(latency.milliseconds(), DeviceLatency::MAXIMUM_MS);
}
