#include "listen/playout/output_clock.h"

#include <cmath>

#include <gtest/gtest.h>

using vxlisten::OutputClock;

namespace {

/// A device of 48000 Hz that asks for 480 frames every 10 ms and says that they are heard 50 ms
/// later.
class OutputClockTest : public testing::Test {
  protected:
    void call(int times, double latency = 50000) {
        for (int i = 0; i < times; ++i) {
            clock_.note(frame_, now_, latency);
            frame_ += 480;
            now_ += 10000;
        }
    }

    /// How far it is from the truth when all latencies were 50 ms, in microseconds.
    double error() const {
        return clock_.heardAt(static_cast<double>(frame_)) - static_cast<double>(now_) - 50000;
    }

    OutputClock clock_{48000, 30000};
    std::uint64_t frame_ = 0;
    std::int64_t now_ = 1'000'000;
};

}  // namespace

TEST_F(OutputClockTest, TheFirstTimeStampsSayNothing) {
    call(40, 5000);
    EXPECT_FALSE(clock_.settled());
    call(110);
    EXPECT_TRUE(clock_.settled());
    EXPECT_NEAR(error(), 0, 1);
}

TEST_F(OutputClockTest, ADeviceThatGetsGoingIsWaitedFor) {
    for (int i = 0; i < 8; ++i) {  // It fills its buffer at once,
        clock_.note(frame_, now_, 1000);
        frame_ += 480;
    }
    now_ += 700'000;  // and then asks for nothing for a while.
    call(30);
    EXPECT_FALSE(clock_.settled());
    call(150);
    EXPECT_TRUE(clock_.settled());
    EXPECT_NEAR(error(), 0, 1);
}

TEST_F(OutputClockTest, SomeWrongMillisecondsAfterAStallChangeNothing) {
    call(1500);
    call(300, 58000);
    EXPECT_NEAR(error(), 0, 200);
    call(1500);
    EXPECT_NEAR(error(), 0, 1);
}

TEST_F(OutputClockTest, AnotherLatencyForGoodIsFollowed) {
    call(1500);
    call(1200, 58000);
    EXPECT_NEAR(error(), 8000, 10);
}

TEST_F(OutputClockTest, AfterAPauseOfTheDeviceItBeginsAnew) {
    call(1500);
    now_ += 2'000'000;
    call(1);
    EXPECT_FALSE(clock_.settled());
    call(150);
    EXPECT_NEAR(error(), 0, 1);
}

TEST_F(OutputClockTest, TimeStampsThatCannotBeTrueGiveWayToTheNominalLatency) {
    for (const double absurd : {-1.0, 0.0, 1e9, std::nan("")}) {
        clock_.restart();
        call(300, absurd);
        EXPECT_TRUE(clock_.nominalOnly());
        EXPECT_NEAR(error(), -20000, 1);
    }
    call(1500);
    EXPECT_FALSE(clock_.nominalOnly());
    EXPECT_NEAR(error(), 0, 1);
}
