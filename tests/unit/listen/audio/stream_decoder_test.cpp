#include "listen/audio/stream_decoder.h"

#include <cmath>

#include <gtest/gtest.h>

#include "listen/audio/level_meter.h"
#include "tests/unit/listen/packets.h"

using vxlisten::parseAudioPacket;
using vxlisten::StreamDecoder;

namespace {

class StreamDecoderTest : public testing::Test {
  protected:
    std::size_t decode(const packets::Bytes& bytes) {
        const auto packet = parseAudioPacket(bytes.data(), bytes.size());
        return packet ? decoder_.decode(*packet, frames_.data()) : 0;
    }

    double rmsDbfs(std::size_t count) const {
        vxlisten::LevelMeter meter;
        meter.add(frames_.data(), count);
        return meter.rmsDbfs();
    }

    StreamDecoder decoder_;
    std::vector<std::int16_t> frames_ = std::vector<std::int16_t>(StreamDecoder::MAX_FRAMES * 2);
};

constexpr double TONE_DBFS = -13.3;  ///< Mean level of packets::tone().

}  // namespace

TEST_F(StreamDecoderTest, RawFramesComeOutAsTheyAre) {
    EXPECT_EQ(decode(packets::raw(0, -100)), 338u);
    frames_.resize(338 * 2);
    EXPECT_EQ(frames_, packets::ramp(338, -100));
}

TEST_F(StreamDecoderTest, FallbackFramesComeOutAsTheyAre) {
    const auto samples = packets::tone(480);
    EXPECT_EQ(decode(packets::make(0, wire::makeFlags(true, true, 4), packets::toBytes(samples))),
              480u);
    EXPECT_EQ(frames_, samples);
}

TEST_F(StreamDecoderTest, OpusDecodesToTheLevelThatWasEncoded) {
    packets::OpusStream stream;
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(decode(stream.next()), 480u);
    }
    EXPECT_NEAR(rmsDbfs(480), TONE_DBFS, 1.0);
}

TEST_F(StreamDecoderTest, ALostOpusPacketIsConcealedWithSimilarSound) {
    packets::OpusStream stream;
    for (int i = 0; i < 10; ++i) {
        decode(stream.next());
    }
    EXPECT_EQ(decoder_.conceal(frames_.data()), 480u);
    EXPECT_NEAR(rmsDbfs(480), TONE_DBFS, 4.0);
}

TEST_F(StreamDecoderTest, NothingIsConcealedBeforeTheFirstPacket) {
    EXPECT_EQ(decoder_.conceal(frames_.data()), 0u);
}

TEST_F(StreamDecoderTest, RubbishIsNoSoundAndDoesNoHarm) {
    packets::OpusStream stream;
    decode(stream.next());
    EXPECT_EQ(decode(packets::make(1, wire::makeFlags(true, true, 2), packets::Bytes(5, 0xFF))),
              0u);
    EXPECT_EQ(decode(stream.next()), 480u);
}

TEST_F(StreamDecoderTest, OpusPacketsOfAnotherLengthAreRefused) {
    OpusEncoder* const encoder = opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr);
    const auto samples = packets::tone(960);
    packets::Bytes payload(1000);
    const int length = opus_encode(encoder, samples.data(), 960, payload.data(), 1000);
    opus_encoder_destroy(encoder);
    ASSERT_GT(length, 0);
    payload.resize(static_cast<std::size_t>(length));
    EXPECT_EQ(decode(packets::make(0, wire::makeFlags(true, true, 2), payload)), 0u);
}
