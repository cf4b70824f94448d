#include <cstdlib>
#include <optional>

#include <gtest/gtest.h>

#include "listen/playout/playout.h"
#include "tests/support/callback_watch.h"
#include "tests/support/packets.h"
#include "tests/unit/listen/playout/packet_feed.h"

namespace {

using Packet = packets::Bytes;

struct Kind {
    int deviceRate;
    std::optional<double> delayMs;
};

/// Plays packets, watching the device's callback.
class PlayoutCallback : public testing::TestWithParam<Kind> {
  protected:
    void play(const std::vector<Packet>& stream) {
        const std::size_t frames = static_cast<std::size_t>(GetParam().deviceRate) / 100;
        std::vector<std::int16_t> output(frames * 2);
        for (std::size_t i = 0; i < stream.size(); ++i) {
            const auto packet = vxlisten::parseAudioPacket(stream[i].data(), stream[i].size());
            ASSERT_TRUE(packet);
            if (i % 23 != 5) {
                feed_.push(*packet, now_);
            }
            now_ += 10000;
            const CallbackWatch watch;
            playout_.render(output.data(), frames, now_, 20000);
        }
    }

    static std::vector<Packet> opus(std::size_t count, bool altRate) {
        packets::OpusStream stream(2, 0, altRate);
        std::vector<Packet> result;
        for (std::size_t i = 0; i < count; ++i) {
            result.push_back(stream.next());
        }
        return result;
    }

    static std::vector<Packet> raw(std::size_t count, bool altRate) {
        std::vector<Packet> result;
        for (std::size_t i = 0; i < count; ++i) {
            result.push_back(packets::make(static_cast<std::uint32_t>(i),
                                           wire::makeFlags(true, altRate, 0),
                                           packets::toBytes(packets::tone(338, i * 338))));
        }
        return result;
    }

    vxlisten::Playout playout_{GetParam().deviceRate, {40, true, GetParam().delayMs}};
    PacketFeed feed_{playout_.queue()};
    std::int64_t now_ = 0;
};

}  // namespace

TEST_P(PlayoutCallback, NeverTouchesTheHeapOrALockWhateverTheStreamDoes) {
    const auto streams = {opus(300, true), raw(300, true), raw(300, false), opus(300, false)};
    CallbackWatch::reset();
    for (const auto& stream : streams) {
        feed_.restart();
        play(stream);
    }
    EXPECT_EQ(CallbackWatch::allocations(), 0);
    EXPECT_EQ(CallbackWatch::releases(), 0);
    EXPECT_EQ(CallbackWatch::locks(), 0);
    EXPECT_GT(playout_.figures().concealed, 0u);
    EXPECT_EQ(playout_.figures().stretched > 0, !GetParam().delayMs);
}

INSTANTIATE_TEST_SUITE_P(Devices, PlayoutCallback,
                         testing::Values(Kind{44100, {}}, Kind{48000, {}}, Kind{96000, {}},
                                         Kind{48000, 60}, Kind{44100, 5}));

TEST(CallbackWatchHere, SeesAnAllocation) {
    CallbackWatch::reset();
    {
        const CallbackWatch watch;
        void* volatile memory = std::malloc(100);
        std::free(memory);
    }
    EXPECT_GT(CallbackWatch::allocations(), 0);
}
