#include "listen/network/sequence_tracker.h"

#include <gtest/gtest.h>

using vxlisten::AudioPacket;
using vxlisten::Encoding;
using vxlisten::SequenceStep;
using vxlisten::SequenceTracker;

namespace {

AudioPacket numbered(std::uint32_t seq, Encoding encoding = Encoding::Raw, int rate = 48000) {
    AudioPacket packet;
    packet.seq = seq;
    packet.encoding = encoding;
    packet.sampleRate = rate;
    packet.frames = 338;
    return packet;
}

class SequenceTrackerFrom100 : public testing::Test {
  protected:
    SequenceTrackerFrom100() { tracker_.observe(numbered(100)); }

    bool starts(const AudioPacket& packet) { return tracker_.observe(packet).start; }

    SequenceTracker tracker_;
};

}  // namespace

TEST_F(SequenceTrackerFrom100, TheNextNumberIsNoLoss) {
    const SequenceStep step = tracker_.observe(numbered(101));
    EXPECT_FALSE(step.start);
    EXPECT_EQ(step.missing, 0u);
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST_F(SequenceTrackerFrom100, AGapCountsWhatIsMissing) {
    const SequenceStep step = tracker_.observe(numbered(105));
    EXPECT_FALSE(step.start);
    EXPECT_EQ(step.missing, 4u);
    EXPECT_EQ(tracker_.lost(), 4u);
}

TEST_F(SequenceTrackerFrom100, ANumberThatGoesBackIsANewStart) {
    EXPECT_TRUE(starts(numbered(100)));
    EXPECT_TRUE(starts(numbered(99)));
    EXPECT_FALSE(starts(numbered(100)));
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST_F(SequenceTrackerFrom100, AnotherPassOrRateIsANewStart) {
    EXPECT_TRUE(starts(numbered(101, Encoding::Opus)));
    EXPECT_FALSE(starts(numbered(102, Encoding::Fallback)));
    EXPECT_TRUE(starts(numbered(103, Encoding::Opus, 44100)));
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST_F(SequenceTrackerFrom100, AJumpThatNoLossExplainsIsANewStart) {
    EXPECT_TRUE(starts(numbered(1000000)));
    EXPECT_TRUE(starts(numbered(5)));
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST(SequenceTracker, NumbersWrapWithoutLoss) {
    SequenceTracker tracker;
    tracker.observe(numbered(0xFFFFFFFEU));
    EXPECT_FALSE(tracker.observe(numbered(0xFFFFFFFFU)).start);
    EXPECT_EQ(tracker.observe(numbered(0)).missing, 0u);
    EXPECT_EQ(tracker.observe(numbered(2)).missing, 1u);
    EXPECT_EQ(tracker.lost(), 1u);
}

TEST(SequenceTracker, ARestartLosesNothing) {
    SequenceTracker tracker;
    tracker.observe(numbered(10));
    tracker.restart();
    EXPECT_TRUE(tracker.observe(numbered(12)).start);
    EXPECT_EQ(tracker.lost(), 0u);
}
