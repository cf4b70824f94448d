#include <functional>
#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "listen/playout/playout.h"
#include "tests/support/packets.h"
#include "tests/unit/listen/playout/packet_feed.h"
#include "tests/unit/listen/playout/virtual_stream.h"

using packets::Bytes;
using virtual_stream::frequencyOf;
using virtual_stream::largestStep;

namespace {

constexpr int DEVICE_RATE = 48000;
constexpr std::size_t PERIOD_FRAMES = 480;
/// What the tone of packets.h steps at most, and half as much again.
constexpr int SMOOTH_STEP = 10000 * 131 / 1000 * 3 / 2 + 100;

/// Plays packets of real streams, made one after the other, on a device of 48000 Hz.
class PlayoutChange : public testing::Test {
  protected:
    /// Plays `seconds` of what `next` makes. A packet that `lost` chooses does not arrive.
    void play(
        double seconds, const std::function<Bytes()>& next,
        const std::function<bool()>& lost = [] { return false; }) {
        const double end = now_ + seconds;
        while (now_ < end) {
            now_ += static_cast<double>(PERIOD_FRAMES) / DEVICE_RATE;
            while (sent_ < now_) {
                const Bytes bytes = next();
                const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
                ASSERT_TRUE(packet);
                sent_ += static_cast<double>(packet->frames) / packet->sampleRate;
                if (!lost()) {
                    feed_.push(*packet, microseconds());
                }
            }
            std::vector<std::int16_t> output(PERIOD_FRAMES * 2);
            playout_.render(output.data(), PERIOD_FRAMES, microseconds());
            played_.insert(played_.end(), output.begin(), output.end());
        }
    }

    std::function<Bytes()> rawTone() {
        return [seq = std::uint32_t{0}]() mutable {
            const Bytes bytes = packets::make(seq, wire::makeFlags(true, true, 0),
                                              packets::toBytes(packets::tone(338, seq * 338)));
            ++seq;
            return bytes;
        };
    }

    std::function<Bytes()> opusTone(std::uint32_t code, std::uint32_t seq = 0,
                                    bool altRate = true) {
        auto stream = std::make_shared<packets::OpusStream>(code, seq, altRate);
        return [stream] { return stream->next(); };
    }

    /// Frequency of the last second.
    double frequencyNow() const {
        return frequencyOf({played_.end() - DEVICE_RATE * 2, played_.end()}, DEVICE_RATE);
    }

    std::int64_t microseconds() const { return static_cast<std::int64_t>(now_ * 1e6); }

    vxlisten::Playout playout_{DEVICE_RATE, {40, true}};
    PacketFeed feed_{playout_.queue()};
    double now_ = 0;
    double sent_ = 0;
    std::vector<std::int16_t> played_;
};

}  // namespace

TEST_F(PlayoutChange, RawToOpusAndBackIsClean) {
    play(2, rawTone());
    play(2, opusTone(2));
    EXPECT_NEAR(frequencyNow(), 1000.0, 0.5);
    play(2, rawTone());
    EXPECT_NEAR(frequencyNow(), 1000.0, 0.5);
    EXPECT_LT(largestStep(played_), SMOOTH_STEP);
    EXPECT_EQ(playout_.figures().underruns, 0u);
}

TEST_F(PlayoutChange, AnotherSampleRatePlaysAtItsOwnPitch) {
    play(2, opusTone(2));
    play(2, opusTone(2, 0, false));
    EXPECT_NEAR(frequencyNow(), 1000.0 * 44100 / 48000, 0.5);
    EXPECT_LT(largestStep(played_), SMOOTH_STEP);
    EXPECT_EQ(playout_.figures().underruns, 0u);
}

TEST_F(PlayoutChange, AnotherBitRateInTheSameStreamGoesOnWithoutAPause) {
    play(2, opusTone(3));
    const std::uint64_t before = playout_.figures().underruns;
    play(2, opusTone(1, static_cast<std::uint32_t>(sent_ * 100 + 0.5)));
    EXPECT_NEAR(frequencyNow(), 1000.0, 0.5);
    EXPECT_EQ(playout_.figures().underruns, before);
    EXPECT_EQ(playout_.figures().concealed, 0u);
    EXPECT_LT(largestStep(played_), SMOOTH_STEP);
}

TEST_F(PlayoutChange, FallbackPacketsPlay) {
    play(2, [seq = std::uint32_t{0}]() mutable {
        const Bytes bytes = packets::make(seq, wire::makeFlags(false, true, 4),
                                          packets::toBytes(packets::tone(480, seq * 480)));
        ++seq;
        return bytes;
    });
    EXPECT_NEAR(frequencyNow(), 1000.0, 0.5);
    EXPECT_LT(largestStep(played_), SMOOTH_STEP);
}

TEST_F(PlayoutChange, LostOpusPacketsAreConcealedWithoutClicks) {
    const auto seed = std::random_device{}();
    std::cout << "random seed " << seed << "\n";
    std::mt19937 random(seed);
    const auto stream = opusTone(2);
    play(1, stream);
    std::uint64_t lost = 0;
    play(20, stream, [&] {
        const bool now = random() % 20 == 0;
        lost += now ? 1 : 0;
        return now;
    });
    EXPECT_GT(lost, 0u);
    EXPECT_NEAR(static_cast<double>(playout_.figures().concealed), static_cast<double>(lost), 10.0);
    EXPECT_NEAR(frequencyNow(), 1000.0, 5.0);
    EXPECT_LT(largestStep(played_), SMOOTH_STEP * 3 / 2);
}

TEST(BlockSource, SoundThatRunsDryFadesOutFromWhereItEnded) {
    vxlisten::BlockQueue queue;
    vxlisten::BlockSource source(queue);
    const Bytes bytes = packets::raw(0, 5000);
    PacketFeed(queue).push(*vxlisten::parseAudioPacket(bytes.data(), bytes.size()), 0);
    ASSERT_NE(source.takeArrival(), nullptr);
    source.resume();
    EXPECT_EQ(source.next().frames[2 * 337], 5337);
    const auto last = source.next();
    EXPECT_EQ(last.kind, vxlisten::BlockSource::Kind::Underrun);
    EXPECT_EQ(last.frames[0], 5337);
    EXPECT_NEAR(last.frames[2 * 337], 0, 20);
    EXPECT_TRUE(source.pausing());
}

TEST(BlockSource, ASkipThatBeginsOrEndsAtALostPacketMakesNoClick) {
    for (const std::uint32_t lost : {7U, 8U, 9U, 11U}) {
        vxlisten::BlockQueue queue;
        vxlisten::BlockSource source(queue);
        PacketFeed feed(queue);
        for (std::uint32_t seq = 0; seq < 20; ++seq) {
            const Bytes bytes = packets::make(seq, wire::makeFlags(true, true, 0),
                                              packets::toBytes(packets::tone(338, seq * 338)));
            if (seq != lost) {
                feed.push(*vxlisten::parseAudioPacket(bytes.data(), bytes.size()), 0);
            }
        }
        while (source.takeArrival() != nullptr) {
        }
        source.resume();
        std::vector<std::int16_t> played;
        for (int i = 0; i < 12; ++i) {
            if (i == 8) {
                source.skip(3);
            }
            const auto block = source.next();
            played.insert(played.end(), block.frames, block.frames + block.count * 2);
        }
        EXPECT_LT(largestStep(played), SMOOTH_STEP) << "packet " << lost << " lost";
    }
}
