#include "listen/sinks/timeline.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/packets.h"

using vxlisten::PcmSink;
using vxlisten::SinkState;

namespace {

/// Keeps what it is given, and closes after `limit` frames.
class MemorySink : public PcmSink {
  public:
    SinkState write(const std::int16_t* frames, std::size_t count, int rate) override {
        samples.insert(samples.end(), frames, frames + count * 2);
        rates.push_back(rate);
        return samples.size() / 2 >= limit ? SinkState::Closed : SinkState::Open;
    }

    std::vector<std::int16_t> samples;
    std::vector<int> rates;
    std::size_t limit = SIZE_MAX;
};

class TimelineTest : public testing::Test {
  protected:
    TimelineTest() { timeline_.addSink(&sink_); }

    PcmSink* take(const packets::Bytes& bytes) {
        const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
        const auto step = tracker_.observe(*packet);
        const auto sound = decoder_.decode(*packet, step, [](const auto&) {});
        return timeline_.take(*packet, step, sound, now_);
    }

    std::size_t frames() const { return sink_.samples.size() / 2; }

    std::int64_t now_ = 1'000'000;
    vxlisten::SequenceTracker tracker_;
    vxlisten::StreamDecoder decoder_;
    vxlisten::Timeline timeline_;
    MemorySink sink_;
};

}  // namespace

TEST_F(TimelineTest, LostPacketsBecomeSilenceOfTheSameLength) {
    take(packets::raw(0, 1000));
    take(packets::raw(3, 2000));
    ASSERT_EQ(frames(), 4u * 338);
    auto expected = packets::ramp(338, 1000);
    expected.resize(3 * 338 * 2, 0);
    const auto after = packets::ramp(338, 2000);
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(sink_.samples, expected);
    EXPECT_EQ(timeline_.framesFilled(), 2u * 338);
    EXPECT_EQ(timeline_.framesDecoded(), 2u * 338);
}

TEST_F(TimelineTest, APauseBetweenTwoConnectionsBecomesSilenceByTheClock) {
    take(packets::raw(500));
    now_ += 2'000'000;
    tracker_.restart();
    take(packets::raw(0));
    EXPECT_EQ(frames(), 338u + 96000);
}

TEST_F(TimelineTest, AnOutageIsWrittenInStepWithTime) {
    take(packets::raw(500));
    std::size_t most = 0;
    for (int i = 0; i < 100; ++i) {
        now_ += 100'000;
        const std::size_t before = frames();
        EXPECT_EQ(timeline_.pass(now_), nullptr);
        most = std::max(most, frames() - before);
    }
    EXPECT_LE(most, 4801u);
    EXPECT_GE(frames(), 9u * 48000) << "an end during the outage leaves nothing out";
    tracker_.restart();
    take(packets::raw(0));
    EXPECT_NEAR(static_cast<double>(frames()), 338.0 + 480000, 2.0);
}

TEST_F(TimelineTest, AfterASlowReaderTheSilenceOfAnOutageComesASecondAtATime) {
    take(packets::raw(0));
    now_ += 10'000'000;
    for (std::size_t second = 1; second <= 5; ++second) {
        timeline_.pass(now_);
        EXPECT_EQ(frames(), 338 + second * 48000);
    }
}

TEST_F(TimelineTest, NothingIsWrittenBeforeTheFirstSound) {
    EXPECT_EQ(timeline_.pass(now_), nullptr);
    EXPECT_EQ(frames(), 0u);
}

TEST_F(TimelineTest, ASinkThatTakesNoMoreSilenceIsTold) {
    take(packets::raw(0));
    sink_.limit = 338 + 480;
    now_ += 1'000'000;
    EXPECT_EQ(timeline_.pass(now_), &sink_);
}

TEST_F(TimelineTest, AGapBehindPacketsThatHadToWaitIsFilledWhole) {
    take(packets::raw(0));
    now_ += 7'000'000;
    for (std::uint32_t seq = 1; seq <= 10; ++seq) {
        take(packets::raw(seq));
    }
    take(packets::raw(901));
    EXPECT_EQ(frames(), 902u * 338);
}

TEST_F(TimelineTest, ForgedGapsOneAfterTheOtherAreNoLongerThanTimeAllows) {
    for (std::uint32_t i = 0; i < 10; ++i) {
        take(packets::raw(i * 1000));
    }
    EXPECT_LE(frames(), 11u * 338 + 2 * 48000);
}

TEST_F(TimelineTest, ADamagedPacketBecomesSilence) {
    take(packets::make(0, wire::makeFlags(true, true, 1), packets::Bytes(7, 0xFF)));
    EXPECT_EQ(frames(), 480u);
    EXPECT_EQ(timeline_.damaged(), 1u);
}

TEST_F(TimelineTest, TheSampleRateGoesWithTheFrames) {
    take(packets::raw(0, 0, false));
    take(packets::raw(1, 0, true));
    EXPECT_EQ(sink_.rates.front(), 44100);
    EXPECT_EQ(sink_.rates.back(), 48000);
}

TEST_F(TimelineTest, ASinkThatTakesNoMoreIsTold) {
    sink_.limit = 338;
    EXPECT_EQ(take(packets::raw(0)), &sink_);
}

TEST_F(TimelineTest, LevelsAreThoseOfTheSoundNotOfTheSilence) {
    take(packets::make(0, wire::makeFlags(true, true, 0), packets::toBytes(packets::tone(480))));
    take(packets::make(5, wire::makeFlags(true, true, 0), packets::toBytes(packets::tone(480))));
    EXPECT_NEAR(timeline_.level().rmsDbfs(0), -13.3, 0.1);
    EXPECT_NEAR(timeline_.level().peakDbfs(1), -10.3, 0.1);
    timeline_.recentLevel().clear();
    EXPECT_EQ(timeline_.recentLevel().peakDbfs(0), vxlisten::SILENCE_DBFS);
}
