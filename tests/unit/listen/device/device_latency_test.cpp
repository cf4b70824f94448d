#include "listen/device/device_latency.h"

#include <gtest/gtest.h>

#include "listen/clock.h"

using vxlisten::DeviceLatency;
using vxlisten::SECOND;

TEST(DeviceLatency, ThreeUnderrunsInAShortTimeDoubleIt) {
    DeviceLatency latency;
    latency.noteOpened(0);
    EXPECT_FALSE(latency.noteUnderruns(0, 4 * SECOND));
    EXPECT_FALSE(latency.noteUnderruns(2, 5 * SECOND));
    EXPECT_EQ(latency.milliseconds(), 80);
    EXPECT_TRUE(latency.noteUnderruns(3, 6 * SECOND));
    EXPECT_EQ(latency.milliseconds(), 160);
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
        EXPECT_FALSE(latency.noteUnderruns(0, opened));
        times += latency.noteUnderruns(9, opened + 4 * SECOND) ? 1 : 0;
    }
    EXPECT_EQ(times, 2);
    EXPECT_EQ(latency.milliseconds(), DeviceLatency::MAXIMUM_MS);
}
