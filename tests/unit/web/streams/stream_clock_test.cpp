#include "web/streams/stream_clock.h"

#include <gtest/gtest.h>

using vxlisten::SequenceStep;
using vxweb::StreamClock;

namespace {

constexpr std::int64_t MILLISECOND = 1000;
constexpr std::int64_t SECOND = 1'000'000;
constexpr std::size_t FRAMES = 480;
constexpr std::int64_t PACKET = 10 * MILLISECOND;

/// Counts what the clock says, for packets of 10 ms.
class StreamClockTest : public testing::Test {
  protected:
    void arrive(const SequenceStep& step = {false, 0}) {
        const auto arrival = clock_.arrive(now_, FRAMES, 48000, step);
        silence_ += arrival.silence;
        late_ += arrival.late ? 1 : 0;
        if (!arrival.late) {
            clock_.wrote(FRAMES);
            sound_ += FRAMES;
        }
    }

    void play(std::int64_t time, std::int64_t every = PACKET) {
        for (std::int64_t t = 0; t < time; t += every) {
            now_ += every;
            arrive({first_, 0});
            first_ = false;
        }
    }

    void pass(std::int64_t time) {
        for (std::int64_t t = 0; t < time; t += PACKET) {
            now_ += PACKET;
            silence_ += clock_.pass(now_);
        }
    }

    /// Seconds of the stream without those that went by.
    double lead() const {
        return static_cast<double>(sound_ + silence_) / 48000 -
               static_cast<double>(now_ - START) / 1e6;
    }

    static constexpr std::int64_t START = 7 * SECOND;
    StreamClock clock_{0, 1};
    std::int64_t now_ = START;
    bool first_ = true;
    std::size_t silence_ = 0;
    std::size_t sound_ = 0;
    std::size_t late_ = 0;
};

}  // namespace

TEST_F(StreamClockTest, SoundThatArrivesInTimeGoesThroughAsItIs) {
    play(60 * SECOND);
    EXPECT_EQ(silence_, 0u);
    EXPECT_EQ(late_, 0u);
}

TEST_F(StreamClockTest, LostPacketsBecomeSilenceOfTheirLength) {
    play(SECOND);
    now_ += 4 * PACKET;
    arrive({false, 3});
    EXPECT_EQ(silence_, 3 * FRAMES);
}

TEST_F(StreamClockTest, AnOutageIsFilledWhileItLastsAndWholeAtItsEnd) {
    play(SECOND);
    pass(30 * SECOND);
    EXPECT_NEAR(lead(), -0.2, 0.011);
    first_ = true;
    play(SECOND);
    EXPECT_NEAR(lead(), 0, 0.001);
    EXPECT_EQ(late_, 0u);
}

TEST_F(StreamClockTest, SoundThatWasHeldUpForAShortTimeIsNotLost) {
    play(SECOND);
    pass(190 * MILLISECOND);
    for (int i = 0; i < 19; ++i) {
        arrive();
    }
    play(10 * SECOND);
    EXPECT_EQ(silence_, 0u);
    EXPECT_EQ(late_, 0u);
}

TEST_F(StreamClockTest, SoundWhoseTimeWasFilledIsLeftOut) {
    play(SECOND);
    pass(SECOND);
    for (int i = 0; i < 100; ++i) {
        arrive();
    }
    play(10 * SECOND);
    EXPECT_NEAR(lead(), 0, 0.03);
    EXPECT_NEAR(static_cast<double>(late_), 80, 3);
}

TEST_F(StreamClockTest, LossesThatAreFilledAlreadyAreNotFilledAgain) {
    play(SECOND);
    pass(SECOND);
    now_ += PACKET;
    arrive({false, 100});
    EXPECT_NEAR(lead(), 0, 0.001);
}

TEST_F(StreamClockTest, TimeThatAStandingServerLostBecomesSilence) {
    play(SECOND);
    pass(150 * MILLISECOND);
    play(5 * SECOND);
    EXPECT_NEAR(lead(), 0, 0.001);
    EXPECT_EQ(late_, 0u);
}

TEST_F(StreamClockTest, AServersClockMayRunFasterOrSlower) {
    for (const std::int64_t every : {PACKET - 5, PACKET + 5}) {
        play(1800 * SECOND, every);
    }
    EXPECT_EQ(silence_, 0u);
    EXPECT_EQ(late_, 0u);
}

TEST_F(StreamClockTest, AServerThatSendsTwiceAsFastDoesNotFillPlayersBuffers) {
    play(10 * SECOND, PACKET / 2);
    EXPECT_LT(lead(), 0.3);
}

TEST_F(StreamClockTest, ForgedGapsAreNoLongerThanTimeAllows) {
    play(SECOND);
    for (int i = 0; i < 1000; ++i) {
        arrive({false, 9000});
    }
    EXPECT_LT(lead(), 0.3);
}

TEST_F(StreamClockTest, ForgedNewStreamsAreNoFasterThanTimeAllows) {
    for (int i = 0; i < 1000; ++i) {
        arrive({true, 0});
    }
    EXPECT_LT(lead(), 0.3);
}

TEST_F(StreamClockTest, AfterAProcessStoodStillPlayersGetNoMoreThanTheyCanUse) {
    play(SECOND);
    now_ += 3600 * SECOND;
    EXPECT_LE(clock_.pass(now_), 24000u);
    now_ += 20 * MILLISECOND;
    EXPECT_LE(clock_.pass(now_), 960u);
}

TEST_F(StreamClockTest, WithoutAServerSilenceBeginsAfterTwoSeconds) {
    pass(1990 * MILLISECOND);
    EXPECT_EQ(silence_, 0u);
    EXPECT_EQ(clock_.rate(), 0);
    pass(2 * SECOND);
    EXPECT_EQ(clock_.rate(), 48000);
    EXPECT_NEAR(static_cast<double>(silence_) / 48000, 2, 0.05);
}

TEST_F(StreamClockTest, SilenceComesInWholePackets) {
    clock_ = StreamClock(48000, FRAMES);
    play(SECOND);
    for (int i = 0; i < 300; ++i) {
        now_ += 7 * MILLISECOND;
        EXPECT_EQ(clock_.pass(now_) % FRAMES, 0u);
    }
}
