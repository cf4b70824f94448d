#include "listen/outputs.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "listen/network/sequence_tracker.h"
#include "tests/support/fake_portaudio.h"
#include "tests/support/packets.h"

namespace {

/// Outputs that play on a device that never asks for anything, and a stream in virtual time.
class OutputsTest : public testing::Test {
  protected:
    OutputsTest() { freshFakePortAudio().defaultDevice = 0; }  // All devices are listed.

    /// Takes `seconds` of packets that come `late` microseconds late. Returns the messages.
    std::vector<std::string> take(double seconds, std::int64_t late) {
        std::vector<std::string> told;
        for (const auto end = seq_ + static_cast<std::uint32_t>(seconds * 142); seq_ < end;
             ++seq_) {
            const packets::Bytes bytes = packets::raw(seq_);
            const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
            const std::int64_t now = START + seq_ * std::int64_t{338'000'000} / 48000 + late;
            outputs_.take(*packet, tracker_.observe(*packet), now);
            std::string news;
            outputs_.watch(START, news);
            if (!news.empty()) {
                told.push_back(news);
            }
        }
        return told;
    }

    static constexpr std::int64_t START = 1'000'000'000;
    vxlisten::Options options_;
    vxlisten::Outputs outputs_;
    vxlisten::SequenceTracker tracker_;
    std::uint32_t seq_ = 0;
};

}  // namespace

TEST_F(OutputsTest, AServersClockThatJumpsIsToldOnceWhereADelayIsKept) {
    options_.playout.delayMs = 200;
    ASSERT_TRUE(outputs_.open(options_));
    EXPECT_TRUE(take(20, 0).empty());
    EXPECT_EQ(take(20, 700'000),
              std::vector<std::string>({"the server's clock has jumped, synchronizing again"}));
}

TEST_F(OutputsTest, ALongSilenceBeforeTheSoundOfEachConnectionIsToldBeforehand) {
    options_.playout.delayMs = 10000;
    ASSERT_TRUE(outputs_.open(options_));
    const std::vector<std::string> once{"what the server sends now is heard in 10 s"};
    EXPECT_EQ(take(1, 0), once);
    tracker_.restart();
    EXPECT_EQ(take(1, 0), once);
}

TEST_F(OutputsTest, WithoutADelayAJumpIsOfNoInterest) {
    ASSERT_TRUE(outputs_.open(options_));
    take(20, 0);
    EXPECT_TRUE(take(20, 700'000).empty());
}

TEST_F(OutputsTest, WithoutADeviceAJumpIsOfNoInterest) {
    fakePortAudio().outputPresent = false;
    options_.playout.delayMs = 200;
    options_.recordPath = testing::TempDir() + "without_a_device.wav";
    ASSERT_TRUE(outputs_.open(options_));
    EXPECT_NE(outputs_.warning(), "");
    take(20, 0);
    EXPECT_TRUE(take(20, 700'000).empty());
}
