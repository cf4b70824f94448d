#include <cmath>
#include <limits>
#include <set>

#include <gtest/gtest.h>

#include "tests/unit/web/streams/heard_sound.h"
#include "tests/unit/web/streams/virtual_feed.h"

using vxweb::StreamFormat;

namespace {

void expectTone(const HeardSound& sound) {
    EXPECT_LT(std::abs(1200 * std::log2(sound.pitch() / VirtualFeed::TONE_HZ)), 1);
    EXPECT_LT(std::abs(20 * std::log10(sound.level() / VirtualFeed::TONE_PEAK)), 0.5);
}

std::vector<std::string> packetsOf(const std::vector<HeardPage>& pages) {
    std::vector<std::string> packets;
    for (std::size_t i = 2; i < pages.size(); ++i) {
        packets.insert(packets.end(), pages[i].packets.begin(), pages[i].packets.end());
    }
    return packets;
}

class OggStream : public testing::Test {
  protected:
    std::vector<HeardPage> pages(std::size_t first = 0) const {
        return readPages(feed_.heard(first));
    }
    HeardSound heard(std::size_t first = 0) const { return decodeOpus(pages(first)); }

    VirtualFeed feed_{StreamFormat::Ogg, 128};
};

class OggStreamRates : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Each, OggStreamRates, testing::Values(20, 64, 128, 256));

}  // namespace

TEST_P(OggStreamRates, TheServersPacketsGoThroughByteForByte) {
    VirtualFeed feed(StreamFormat::Ogg, GetParam());
    feed.play(3000);
    const auto packets = packetsOf(readPages(feed.heard()));
    ASSERT_EQ(packets.size(), 300u);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const packets::Bytes& sent = feed.arrived()[i];
        EXPECT_EQ(packets[i], std::string(sent.begin(), sent.end()));
    }
}

TEST_F(OggStream, TheHeadersSayWhatFollows) {
    const auto all = pages();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].begins);
    EXPECT_EQ(all[0].packets.at(0).substr(0, 10), std::string("OpusHead\1\2", 10));
    EXPECT_EQ(all[0].packets.at(0).size(), 19u);
    EXPECT_EQ(all[1].packets.at(0).substr(0, 8), "OpusTags");
    EXPECT_NE(all[1].packets.at(0).find("TITLE=Kitchen"), std::string::npos);
}

TEST_F(OggStream, APageHoldsATenthOfASecond) {
    feed_.play(3000);
    const auto all = pages();
    ASSERT_EQ(all.size(), 2u + 30);
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].number, static_cast<long>(i));
        EXPECT_EQ(all[i].granule, i < 2 ? 0 : static_cast<std::int64_t>(i - 1) * 4800);
    }
    EXPECT_EQ(feed_.chunks(), 30u) << "paged once for all";
}

TEST_F(OggStream, WhoComesLaterGetsTheHeadersAndThePageNumbersOfTheMoment) {
    feed_.play(6000);
    const auto late = pages(40);
    EXPECT_EQ(late[0].number, 0);
    EXPECT_EQ(late[1].number, 1);
    EXPECT_EQ(late[2].number, 42);
    EXPECT_EQ(late[2].granule, 41 * 4800);
    expectTone(heard(40).part(0.2, 1.9));
}

TEST_F(OggStream, AFewLostPacketsAreConcealedAndTheTimeGoesOn) {
    feed_.play(1000);
    feed_.lose(2);
    feed_.play(1000);
    EXPECT_EQ(pages().back().granule, 202 / 10 * 4800);
    const HeardSound sound = heard();
    EXPECT_EQ(sound.silence(), 0);
    expectTone(sound.part(1.2, 1.9));
}

TEST_F(OggStream, AfterManyLostPacketsThereIsSilenceOfTheirLength) {
    feed_.play(1000);
    feed_.lose(100);
    feed_.play(1000);
    EXPECT_NEAR(static_cast<double>(pages().back().granule), 3 * 48000, 4800);
    EXPECT_GT(heard().silence(), 0.9);
}

TEST_F(OggStream, WhileTheServerIsAwaySilenceKeepsPlayersInTime) {
    feed_.play(2000);
    feed_.pass(10000);
    feed_.reconnect();
    feed_.play(2000);
    const HeardSound sound = heard();
    EXPECT_NEAR(sound.seconds(), 14, 0.15);
    EXPECT_EQ(sound.part(2.2, 11.9).level(), 0);
    expectTone(sound.part(12.3, 13.8));
}

TEST_F(OggStream, SoundThatWasHeldUpForASecondDoesNotDelayTheStream) {
    feed_.play(2000);
    for (int i = 0; i < 5; ++i) {
        feed_.stall(1000);
        feed_.play(3000);
    }
    EXPECT_NEAR(heard().seconds(), feed_.seconds(), 0.15);
}

TEST_F(OggStream, ABlockThatTheServerCouldNotEncodeIsHeard) {
    feed_.play(1000);
    const auto samples = packets::tone(480 * 100);
    const packets::Bytes sound = packets::toBytes(samples);
    for (int i = 0; i < 100; ++i) {
        feed_.send({sound.begin() + i * 1920, sound.begin() + (i + 1) * 1920});
    }
    feed_.play(1000);
    const HeardSound all = heard();
    EXPECT_NEAR(all.seconds(), 3, 0.1);
    const HeardSound block = all.part(1.2, 1.9);
    EXPECT_NEAR(block.pitch(), 1000, 0.5);
    EXPECT_NEAR(block.level(), 10000, 500);
    expectTone(all.part(2.2, 2.9));
}

TEST_F(OggStream, SoundCapturedAt44100HzKeepsItsPitch) {
    feed_.reconnect(44100);
    feed_.play(5000);
    const HeardSound sound = heard();
    EXPECT_NEAR(sound.seconds(), 5, 0.15);
    expectTone(sound.part(0.3, 4.8));
}

TEST_F(OggStream, TheRateMayChangeAndComeBack) {
    feed_.play(3000);
    feed_.changeRate(44100);
    feed_.play(3000);
    feed_.changeRate(48000);
    feed_.play(3000);
    const HeardSound sound = heard();
    EXPECT_NEAR(sound.seconds(), 9, 0.15);
    expectTone(sound.part(0.3, 2.8));
    expectTone(sound.part(3.3, 5.8));
    expectTone(sound.part(6.3, 8.8));
}

TEST_F(OggStream, DamagedPacketsAreLeftOut) {
    feed_.play(1000);
    feed_.send({0xFF, 0x41, 7});
    feed_.send({0x00});
    feed_.send(packets::Bytes(1300, 0xFF));
    feed_.play(1000);
    const HeardSound sound = heard();
    EXPECT_NEAR(sound.seconds(), 2.03, 0.1);
    expectTone(sound.part(1.2, 1.9));
}

TEST_F(OggStream, ThePacketNumbersBeginAnewAtTheirEnd) {
    feed_.setNumber(std::numeric_limits<std::uint32_t>::max() - 50);
    feed_.play(2000);
    const HeardSound sound = heard();
    EXPECT_NEAR(sound.seconds(), 2, 0.1);
    expectTone(sound.part(0.2, 1.9));
}

TEST_F(OggStream, WithoutAServerAPlayerHearsSilence) {
    feed_.pass(6000);
    EXPECT_NEAR(heard().seconds(), 4, 0.2);
    EXPECT_EQ(heard().level(), 0);
}
