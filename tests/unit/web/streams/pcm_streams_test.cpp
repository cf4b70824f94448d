#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "tests/unit/web/streams/heard_sound.h"
#include "tests/unit/web/streams/virtual_feed.h"

using vxweb::StreamFormat;

namespace {

/// The feed's samples as they arrived.
std::vector<std::int16_t> sent(const VirtualFeed& feed) {
    std::vector<std::int16_t> samples;
    for (const packets::Bytes& payload : feed.arrived()) {
        for (std::size_t i = 0; i < payload.size(); i += 2) {
            samples.push_back(static_cast<std::int16_t>(payload[i] | payload[i + 1] << 8));
        }
    }
    return samples;
}

void expectTone(const HeardSound& sound) {
    EXPECT_LT(std::abs(1200 * std::log2(sound.pitch() / VirtualFeed::TONE_HZ)), 1);
    EXPECT_LT(std::abs(20 * std::log10(sound.level() / VirtualFeed::TONE_PEAK)), 0.5);
}

struct Choice {
    StreamFormat format;
    int rate;
};

class PcmStreams : public testing::TestWithParam<Choice> {
  protected:
    VirtualFeed feed_{GetParam().format, GetParam().rate};
};

class LosslessStreams : public PcmStreams {};

INSTANTIATE_TEST_SUITE_P(
    Each, PcmStreams,
    testing::Values(Choice{StreamFormat::Wav, 0}, Choice{StreamFormat::Flac, 0},
                    Choice{StreamFormat::Mp3, 64}, Choice{StreamFormat::Mp3, 128},
                    Choice{StreamFormat::Mp3, 192}, Choice{StreamFormat::Mp3, 256}));
INSTANTIATE_TEST_SUITE_P(Each, LosslessStreams,
                         testing::Values(Choice{StreamFormat::Wav, 0},
                                         Choice{StreamFormat::Flac, 0}));

}  // namespace

TEST_P(LosslessStreams, EverySampleIsTheServers) {
    feed_.play(3000);
    HeardSound heard = decodeByLibsndfile(feed_.heard());
    auto expected = sent(feed_);
    ASSERT_GT(heard.count(), 2u * 48000);
    expected.resize(heard.frames.size());
    // The first 5 ms are faded in.
    EXPECT_TRUE(std::equal(expected.begin() + 480, expected.end(), heard.frames.begin() + 480));
}

TEST_P(PcmStreams, ThePlayerHearsTheTone) {
    feed_.play(5000);
    const HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_EQ(heard.rate, 48000);
    EXPECT_NEAR(heard.seconds(), 5, 0.15);
    expectTone(heard.part(0.2, heard.seconds() - 0.2));
}

TEST_P(PcmStreams, SoundCapturedAt44100HzKeepsItsPitch) {
    feed_.reconnect(44100);
    feed_.play(5000);
    const HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_EQ(heard.rate, 44100);
    expectTone(heard.part(0.2, heard.seconds() - 0.2));
}

TEST_P(PcmStreams, AListenerWhoComesLaterHearsTheToneFromAnyChunkOn) {
    feed_.play(4000);
    const std::size_t all = feed_.chunks();
    for (const std::size_t first : {all / 4, all / 3, all / 2}) {
        const HeardSound heard = decodeByLibsndfile(feed_.heard(first));
        EXPECT_EQ(heard.rate, 48000);
        EXPECT_GT(heard.seconds(), 1.7);
        expectTone(heard.part(0.2, heard.seconds() - 0.2));
    }
}

TEST_P(PcmStreams, AnotherRateOfTheServersIsResampledToTheFirst) {
    feed_.play(3000);
    feed_.changeRate(44100);
    feed_.play(3000);
    feed_.changeRate(48000);
    feed_.play(3000);
    const HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_EQ(heard.rate, 48000);
    EXPECT_NEAR(heard.seconds(), 9, 0.15);
    expectTone(heard.part(0.2, 2.8));
    expectTone(heard.part(3.2, 5.8));
    expectTone(heard.part(6.2, 8.8));
}

TEST_P(PcmStreams, WhileTheServerIsAwaySilenceKeepsPlayersInTime) {
    feed_.play(2000);
    feed_.pass(10000);
    feed_.reconnect();
    feed_.play(2000);
    const HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_NEAR(heard.seconds(), 14, 0.15);
    EXPECT_LT(heard.part(2.1, 11.9).level(), 40);
    expectTone(heard.part(12.2, 13.7));
}

TEST_P(LosslessStreams, WhatIsMissingIsFadedNotClicked) {
    feed_.play(1000);
    feed_.lose(20);
    feed_.play(1000);
    feed_.stall(700);
    feed_.play(1000);
    const HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_LT(heard.largestStep(),
              2 * 2 * M_PI * VirtualFeed::TONE_HZ / 48000 * VirtualFeed::TONE_PEAK);
    EXPECT_NEAR(heard.silence(), 0.14 + 0.5, 0.03);
}

TEST_P(PcmStreams, SoundThatWasHeldUpForASecondDoesNotDelayTheStream) {
    feed_.play(2000);
    for (int i = 0; i < 5; ++i) {
        feed_.stall(1000);
        feed_.play(3000);
    }
    EXPECT_NEAR(decodeByLibsndfile(feed_.heard()).seconds(), feed_.seconds(), 0.15);
}

TEST_P(PcmStreams, ThePacketNumbersBeginAnewAtTheirEnd) {
    feed_.setNumber(std::numeric_limits<std::uint32_t>::max() - 50);
    feed_.play(2000);
    const HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_NEAR(heard.seconds(), 2, 0.15);
    expectTone(heard.part(0.2, 1.7));
}

TEST_P(PcmStreams, WithoutAServerAPlayerHearsSilence) {
    feed_.pass(6000);
    HeardSound heard = decodeByLibsndfile(feed_.heard());
    EXPECT_NEAR(heard.seconds(), 4, 0.15);
    feed_.reconnect(44100);
    feed_.play(2000);
    heard = decodeByLibsndfile(feed_.heard());
    EXPECT_EQ(heard.rate, 48000);
    expectTone(heard.part(heard.seconds() - 1.5, heard.seconds() - 0.2));
}

TEST(WavStream, TheHeaderSaysThatTheEndIsNotKnown) {
    VirtualFeed feed(StreamFormat::Wav, 0);
    feed.play(100);
    const std::string bytes = feed.heard();
    EXPECT_EQ(bytes.substr(0, 12), "RIFF\xFF\xFF\xFF\xFFWAVE");
    EXPECT_EQ(bytes.substr(36, 8), "data\xFF\xFF\xFF\xFF");
}

TEST(WavStream, GoesOnBeyond4GiB) {
    VirtualFeed feed(StreamFormat::Wav, 0);
    feed.play(1000);
    feed.forget();
    feed.pass(23'000'000, 400);
    EXPECT_GT(feed.bytes(), std::uint64_t{1} << 32);
    const std::uint64_t before = feed.bytes();
    feed.reconnect();
    feed.play(1000);
    EXPECT_GT(feed.bytes() - before, 48000u * 4);
}

TEST(Mp3Stream, EveryFrameCanBePlayedByItself) {
    VirtualFeed feed(StreamFormat::Mp3, 128);
    feed.play(2000);
    for (const vxweb::Chunk& chunk : feed.emitted()) {
        ASSERT_EQ(chunk->size() % 384, 0u) << "no whole frames of 128 kbit/s";
        for (std::size_t i = 0; i < chunk->size(); i += 384) {
            EXPECT_EQ(static_cast<unsigned char>((*chunk)[i]), 0xFF);
            // The first nine bits of the side information: how far back its bits begin.
            const auto high = static_cast<unsigned char>((*chunk)[i + 4]);
            EXPECT_EQ(high, 0) << "the bit reservoir is in use";
        }
    }
    EXPECT_NE(feed.heard().substr(4, 380), std::string(380, '\0'))
        << "the first frame is room for a header with the length";
}

TEST(FlacStream, TheTitleStandsInTheHeader) {
    VirtualFeed feed(StreamFormat::Flac, 0);
    feed.play(500);
    EXPECT_NE(feed.heard().find("Kitchen"), std::string::npos);
}
