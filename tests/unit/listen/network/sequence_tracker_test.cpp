#include "listen/network/sequence_tracker.h"

#include <gtest/gtest.h>

using vxlisten::Arrival;
using vxlisten::AudioPacket;
using vxlisten::Encoding;
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
    Arrival arrivalOf(const AudioPacket& packet) { return tracker_.observe(packet).arrival; }

    SequenceTracker tracker_;
};

}  // namespace

TEST_F(SequenceTrackerFrom100, TheNextNumberIsNoLoss) {
    EXPECT_EQ(arrivalOf(numbered(101)), Arrival::Next);
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST_F(SequenceTrackerFrom100, AGapCountsWhatIsMissing) {
    const auto step = tracker_.observe(numbered(105));
    EXPECT_EQ(step.arrival, Arrival::AfterGap);
    EXPECT_EQ(step.missing, 4u);
    EXPECT_EQ(tracker_.lost(), 4u);
}

TEST_F(SequenceTrackerFrom100, ALatePacketIsNoLongerLostAndNoDuplicate) {
    arrivalOf(numbered(103));
    EXPECT_EQ(arrivalOf(numbered(101)), Arrival::Late);
    EXPECT_EQ(tracker_.lost(), 1u);
    EXPECT_EQ(tracker_.late(), 1u);
    EXPECT_EQ(arrivalOf(numbered(101)), Arrival::Duplicate);
    EXPECT_EQ(tracker_.duplicates(), 1u);
    EXPECT_EQ(tracker_.lost(), 1u);
}

TEST_F(SequenceTrackerFrom100, NumbersFromBeforeTheStartAreNotLost) {
    EXPECT_EQ(arrivalOf(numbered(99)), Arrival::Duplicate);
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST_F(SequenceTrackerFrom100, AnotherPassOrRateIsANewStart) {
    EXPECT_EQ(arrivalOf(numbered(7, Encoding::Opus)), Arrival::Start);
    EXPECT_EQ(arrivalOf(numbered(8, Encoding::Fallback)), Arrival::Next);
    EXPECT_EQ(arrivalOf(numbered(9, Encoding::Opus, 44100)), Arrival::Start);
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST_F(SequenceTrackerFrom100, AJumpThatNoLossExplainsIsANewStart) {
    EXPECT_EQ(arrivalOf(numbered(1000000)), Arrival::Start);
    EXPECT_EQ(arrivalOf(numbered(5)), Arrival::Start);
    EXPECT_EQ(tracker_.lost(), 0u);
}

TEST(SequenceTracker, NumbersWrapWithoutLoss) {
    SequenceTracker tracker;
    tracker.observe(numbered(0xFFFFFFFEU));
    EXPECT_EQ(tracker.observe(numbered(0xFFFFFFFFU)).arrival, Arrival::Next);
    EXPECT_EQ(tracker.observe(numbered(0)).arrival, Arrival::Next);
    EXPECT_EQ(tracker.observe(numbered(2)).missing, 1u);
    EXPECT_EQ(tracker.observe(numbered(1)).arrival, Arrival::Late);
    EXPECT_EQ(tracker.lost(), 0u);
}

TEST(SequenceTracker, ARestartLosesNothing) {
    SequenceTracker tracker;
    tracker.observe(numbered(10));
    tracker.restart();
    EXPECT_EQ(tracker.observe(numbered(12)).arrival, Arrival::Start);
    EXPECT_EQ(tracker.lost(), 0u);
}
