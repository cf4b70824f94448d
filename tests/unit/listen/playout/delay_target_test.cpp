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

TEST_F(DelayTargetTest, StartsFromTheWishAndKeepsItWhileTheNetworkIsEven) {
    EXPECT_EQ(target_.milliseconds(), 40);
    arrive(1000, 0);
    EXPECT_EQ(target_.milliseconds(), 40);
}

TEST_F(DelayTargetTest, GrowsWithinASecondOnLateArrivalAlone) {
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

TEST_F(DelayTargetTest, ShrinksBackToTheWishWhenTheNetworkHasCalmedDown) {
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

TEST_F(DelayTargetTest, UnderrunsAddToItForAWhile) {
    arrive(100, 0);
    target_.noteUnderrun();
    EXPECT_EQ(target_.milliseconds(), 55);
    target_.pass(1000);
    EXPECT_EQ(target_.milliseconds(), 40);
}
