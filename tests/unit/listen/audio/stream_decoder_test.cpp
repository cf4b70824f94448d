#include "listen/audio/stream_decoder.h"

#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "listen/audio/level_meter.h"
#include "tests/support/packets.h"

using vxlisten::Join;
using vxlisten::parseAudioPacket;
using vxlisten::SequenceStep;
using vxlisten::StreamDecoder;

namespace {

/// Decodes packets and keeps the blocks to play.
class StreamDecoderTest : public testing::Test {
  protected:
    struct Heard {
        std::vector<std::int16_t> samples;
        Join join;
        bool concealed;
    };

    /// Decodes a packet after `missing` lost ones. Returns the frames of its own sound.
    std::size_t decode(const packets::Bytes& bytes, std::uint32_t missing = 0) {
        const auto packet = parseAudioPacket(bytes.data(), bytes.size());
        heard_.clear();
        const auto hear = [this](const vxlisten::DecodedBlock& block) {
            heard_.push_back(
                {{block.frames, block.frames + 2 * block.count}, block.join, block.concealed});
        };
        const SequenceStep step{std::exchange(start_, false), missing};
        return packet ? decoder_.decode(*packet, step, hear).count : 0;
    }

    static double rmsDbfs(const Heard& heard) {
        vxlisten::LevelMeter meter;
        meter.add(heard.samples.data(), heard.samples.size() / 2);
        return meter.rmsDbfs(0);
    }

    StreamDecoder decoder_;
    bool start_ = true;
    std::vector<Heard> heard_;
};

constexpr double TONE_DBFS = -13.3;  ///< Mean level of packets::tone().

packets::Bytes rubbish() {
    return packets::make(1, wire::makeFlags(true, true, 2), packets::Bytes(5, 0xFF));
}

packets::Bytes rawTone(std::uint32_t seq) {
    return packets::make(seq, wire::makeFlags(true, true, 0),
                         packets::toBytes(packets::tone(338, seq * 338)));
}

}  // namespace

TEST_F(StreamDecoderTest, RawFramesComeOutAsTheyAre) {
    EXPECT_EQ(decode(packets::raw(0, -100)), 338u);
    ASSERT_EQ(heard_.size(), 1u);
    EXPECT_EQ(heard_[0].samples, packets::ramp(338, -100));
    EXPECT_EQ(heard_[0].join, Join::NewStream);
}

TEST_F(StreamDecoderTest, FallbackFramesComeOutAsTheyAre) {
    const auto samples = packets::tone(480);
    EXPECT_EQ(decode(packets::make(0, wire::makeFlags(true, true, 4), packets::toBytes(samples))),
              480u);
    EXPECT_EQ(heard_[0].samples, samples);
}

TEST_F(StreamDecoderTest, OpusDecodesToTheLevelThatWasEncoded) {
    packets::OpusStream stream;
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(decode(stream.next()), 480u);
    }
    EXPECT_NEAR(rmsDbfs(heard_[0]), TONE_DBFS, 1.0);
    EXPECT_EQ(heard_[0].join, Join::Continues);
}

TEST_F(StreamDecoderTest, ALostOpusPacketIsConcealedWithSimilarSound) {
    packets::OpusStream stream;
    for (int i = 0; i < 10; ++i) {
        decode(stream.next());
    }
    stream.next();
    EXPECT_EQ(decode(stream.next(), 1), 480u);
    ASSERT_EQ(heard_.size(), 2u);
    EXPECT_TRUE(heard_[0].concealed);
    EXPECT_EQ(heard_[0].samples.size(), 2u * 480);
    EXPECT_NEAR(rmsDbfs(heard_[0]), TONE_DBFS, 4.0);
    EXPECT_EQ(heard_[1].join, Join::Continues) << "libopus leads into it";
}

TEST_F(StreamDecoderTest, LongerLossFadesToSilenceAndTheSoundAfterItFadesIn) {
    packets::OpusStream stream;
    for (int i = 0; i < 10; ++i) {
        decode(stream.next());
    }
    decode(stream.next(), 8);
    ASSERT_EQ(heard_.size(), 9u);
    EXPECT_GT(rmsDbfs(heard_[0]), rmsDbfs(heard_[4]));
    EXPECT_EQ(heard_[6].samples, std::vector<std::int16_t>(2 * 480));
    EXPECT_EQ(heard_[7].samples, std::vector<std::int16_t>(2 * 480));
    EXPECT_EQ(heard_[8].join, Join::FadeIn);
}

TEST_F(StreamDecoderTest, ALostRawPacketIsTheOneBeforeMirroredAndFadedOut) {
    decode(packets::raw(0, 5000));
    decode(packets::raw(3), 2);
    ASSERT_EQ(heard_.size(), 3u);
    ASSERT_EQ(heard_[0].samples.size(), 2u * 338);
    EXPECT_EQ(heard_[0].samples.front(), 5337) << "where the packet before ended";
    EXPECT_NEAR(heard_[0].samples[338], (5337 - 169) / 2, 2);
    EXPECT_NEAR(heard_[0].samples.back(), 0, 20);
    EXPECT_EQ(heard_[1].samples, std::vector<std::int16_t>(2 * 338));
    EXPECT_EQ(heard_[2].join, Join::FadeIn);
    EXPECT_FALSE(heard_[2].concealed);
}

TEST_F(StreamDecoderTest, AVeryLongGapIsNotFilledButBeginsANewStream) {
    decode(rawTone(0));
    decode(rawTone(300), 299);
    ASSERT_EQ(heard_.size(), 1u);
    EXPECT_EQ(heard_[0].join, Join::NewStream);
}

TEST_F(StreamDecoderTest, NothingIsConcealedBeforeTheFirstSound) {
    EXPECT_EQ(decode(rubbish()), 0u);
    ASSERT_EQ(heard_.size(), 1u);
    EXPECT_TRUE(heard_[0].samples.empty());
    decode(rawTone(1));
    EXPECT_EQ(heard_[0].join, Join::NewStream);
}

TEST_F(StreamDecoderTest, RubbishIsConcealedAndDoesNoHarm) {
    packets::OpusStream stream;
    decode(stream.next());
    EXPECT_EQ(decode(rubbish()), 0u);
    ASSERT_EQ(heard_.size(), 1u);
    EXPECT_TRUE(heard_[0].concealed);
    EXPECT_EQ(heard_[0].samples.size(), 2u * 480);
    EXPECT_EQ(decode(stream.next()), 480u);
}

TEST_F(StreamDecoderTest, AnEmptyRawPacketIsNeitherHeardNorConcealed) {
    decode(rawTone(0));
    EXPECT_EQ(decode(packets::make(1, wire::makeFlags(true, true, 0), {})), 0u);
    ASSERT_EQ(heard_.size(), 1u);
    EXPECT_TRUE(heard_[0].samples.empty());
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
