#include "listen/playout/delay_target.h"

#include <gtest/gtest.h>

using vxlisten::DelayTarget;

namespace {

constexpr double PACKET_MS = 7;

/// Packets on their way to a target; lateness in milliseconds.
class DelayTargetTest : public testing::Test {
  protected:
    void arrive(int packets, double latenessMs) {
        for (int i = 0; i < packets; ++i) {
            const auto sent = static_cast<std::int64_t>(number_++ * PACKET_MS * 1000);
            target_.noteArrival(sent, sent + static_cast<std::int64_t>(latenessMs * 1000),
                                PACKET_MS);
        }
    }

    DelayTarget target_{40, true};
    double number_ = 0;
};

}  // namespace

TEST_F(DelayTargetTest, StartsFromTheChosenBufferAndKeepsItWhileTheNetworkIsEven) {
    EXPECT_EQ(target_.milliseconds(), 40);
    arrive(1000, 0);
    EXPECT_EQ(target_.milliseconds(), 40);
}

TEST_F(DelayTargetTest, GrowsWithinASecondWhenPacketsAreLate) {
    arrive(1000, 0);
    for (int i = 0; i < 14; ++i) {
        arrive(9, 0);
        arrive(1, 60);
    }
    EXPECT_GT(target_.milliseconds(), 60 + PACKET_MS);
    EXPECT_LT(target_.milliseconds(), 90);
}

TEST_F(DelayTargetTest, LearnsRareDelaysThatComeAgainAndAgain) {
    arrive(1000, 0);
    for (int i = 0; i < 20; ++i) {
        arrive(279, 0);  // A delay every two seconds.
        arrive(1, 60);
    }
    EXPECT_GT(target_.milliseconds(), 60 + PACKET_MS);
}

TEST_F(DelayTargetTest, OneStallIsNotLearntFrom) {
    arrive(500, 0);
    arrive(1, 400);
    arrive(500, 0);
    EXPECT_EQ(target_.milliseconds(), 40);
}

TEST_F(DelayTargetTest, ShrinksBackToTheChosenBufferWhenTheNetworkIsEvenAgain) {
    for (int i = 0; i < 100; ++i) {
        arrive(9, 0);
        arrive(1, 100);
    }
    EXPECT_GT(target_.milliseconds(), 100);
    arrive(40000, 0);
    EXPECT_EQ(target_.milliseconds(), 40);
}

TEST_F(DelayTargetTest, NeverExceedsHalfASecond) {
    arrive(100, 0);
    for (int i = 0; i < 200; ++i) {
        arrive(1, 0);
        arrive(1, 3000);
        target_.noteUnderrun();
    }
    EXPECT_EQ(target_.milliseconds(), 500);
}

namespace {

/// Nothing was chosen: it starts at 40 ms.
class ShrinkingTarget : public DelayTargetTest {
  protected:
    ShrinkingTarget() { target_ = DelayTarget(40, false); }

    /// Packets of 7 ms for a while, and a device that asks every 10 ms.
    void pass(int seconds, double latenessMs = 0) {
        for (int i = 0; i < seconds; ++i) {
            arrive(142, latenessMs);
            for (int call = 0; call < 100; ++call) {
                demand_ += 10;
                target_.noteDemand(demand_, static_cast<std::int64_t>(demand_ * 1000), false);
            }
            target_.pass(1);
        }
    }

    double demand_ = 0;
};

}  // namespace

TEST_F(ShrinkingTarget, OnAQuietWireItShrinksTowardsAPacketAndSomeSafety) {
    EXPECT_EQ(target_.milliseconds(), 40);
    pass(4);
    EXPECT_EQ(target_.milliseconds(), 40);
    pass(30);
    EXPECT_LT(target_.milliseconds(), 35);
    EXPECT_GT(target_.shrinkingPpm(), 0);
    pass(200);
    EXPECT_LT(target_.milliseconds(), 9);
    EXPECT_GE(target_.milliseconds(), PACKET_MS);
    EXPECT_EQ(target_.shrinkingPpm(), 0);
}

TEST_F(ShrinkingTarget, WhatPacketsWaitForTheCapturesBlocksCountsAsFarAsItIsAboveTheMean) {
    for (int second = 0; second < 200; ++second) {
        for (int packet = 0; packet < 142; ++packet) {
            arrive(1, 0.07 * (packet % 100));  // 0 to 7 ms, one as often as another.
        }
        target_.pass(1);
    }
    EXPECT_NEAR(target_.jitterMs(), 7, 0.3);
    EXPECT_GT(target_.milliseconds(), 3.5 + PACKET_MS / 2 + 4);
    EXPECT_LT(target_.milliseconds(), 3.5 + PACKET_MS / 2 + 6);
}

TEST_F(ShrinkingTarget, ItGrowsWhenTheSoundHasNearlyRunDry) {
    pass(200);
    const double before = target_.milliseconds();
    target_.noteDepth(5, before);
    EXPECT_EQ(target_.milliseconds(), before);
    target_.noteDepth(1, before);
    EXPECT_GT(target_.milliseconds(), before + 2);
    target_.noteDepth(1, before + 3);
    EXPECT_LT(target_.milliseconds(), before + 4) << "once is enough until it has had an effect";
}

TEST_F(ShrinkingTarget, ADeviceThatAsksForMuchAtATimeGetsMore) {
    pass(200);
    const double before = target_.milliseconds();
    for (int i = 0; i < 200; ++i) {  // 40 ms at once, every 40 ms.
        for (int call = 0; call < 4; ++call) {
            target_.noteDemand(demand_ + 10 * call, static_cast<std::int64_t>(demand_ * 1000),
                               false);
        }
        demand_ += 40;
    }
    EXPECT_GT(target_.milliseconds(), before + 25);
    EXPECT_LT(target_.milliseconds(), before + 35);
}

TEST_F(ShrinkingTarget, ANewStreamStartsFromTheBeginning) {
    pass(200);
    target_.restart();
    EXPECT_EQ(target_.milliseconds(), 40);
}

TEST_F(DelayTargetTest, UnderrunsAddToItForAWhile) {
    arrive(100, 0);
    target_.noteUnderrun();
    EXPECT_EQ(target_.milliseconds(), 55);
    target_.pass(1000);
    EXPECT_EQ(target_.milliseconds(), 40);
}
