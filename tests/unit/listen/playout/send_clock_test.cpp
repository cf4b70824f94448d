#include "listen/playout/send_clock.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "listen/clock.h"
#include "stream/wire_format.h"

using vxlisten::MILLISECOND;

namespace {

/// Raw packets at an even pace.
class Stream {
  public:
    explicit Stream(std::size_t frames = wire::RAW_BLOCK_FRAMES) : silence_(2 * frames) {}

    /// When the first frame of the next packet, which comes `late`, counts as sent, against its
    /// place in the stream; microseconds.
    double next(double late = 0) {
        vxlisten::DecodedBlock block;
        block.frames = silence_.data();
        block.count = silence_.size() / 2;
        block.sampleRate = 48000;
        block.join = time_ > 0 ? vxlisten::Join::Continues : vxlisten::Join::NewStream;
        const double sent =
            clock_.next(block, {}, static_cast<std::int64_t>(time_ + late)).first - time_;
        time_ += static_cast<double>(block.count) * 1e6 / 48000;
        return sent;
    }

    /// The server sends later from now on.
    void shift(double microseconds) { time_ += microseconds; }

    [[nodiscard]] double seconds() const { return time_ / 1e6; }
    [[nodiscard]] unsigned jumps() const { return clock_.jumps(); }

    void answer(double milliseconds) { clock_.noteRoundTrip(milliseconds * MILLISECOND); }

  private:
    vxlisten::SendClock clock_;
    double time_ = 0;
    std::vector<std::int16_t> silence_;
};

}  // namespace

TEST(SendClock, AFewLongRoundTripsInARowDoNotMoveTheSound) {
    Stream stream;
    double least = 0;
    double most = -1e9;
    for (int i = 0; i < 2000; ++i) {
        if (i % 7 == 0) {
            stream.answer(i > 340 && i < 380 ? 60 + i % 49 : 20 + i % 3);
        }
        const double sent = stream.next();
        if (i > 140) {
            least = std::min(least, sent);
            most = std::max(most, sent);
        }
    }
    EXPECT_LT(most - least, 1.0 * MILLISECOND);
    EXPECT_NEAR(most, -10.0 * MILLISECOND, 1.0 * MILLISECOND);
}

TEST(SendClock, HoursOfJitterAreNoJump) {
    Stream stream(10 * wire::RAW_BLOCK_FRAMES);
    std::mt19937 random;
    std::uniform_real_distribution<> late(0, 10000);
    double least = 1e9;
    double most = -1e9;
    while (stream.seconds() < 5 * 3600) {
        const double sent = stream.next(late(random));
        if (stream.seconds() > 600) {
            least = std::min(least, sent);
            most = std::max(most, sent);
        }
    }
    EXPECT_EQ(stream.jumps(), 0U);
    EXPECT_LT(most - least, 3.0 * MILLISECOND);
}

TEST(SendClock, AWayThatBecomesMuchQuickerHasNewRoundTrips) {
    Stream stream;
    double sent = 0;
    for (int i = 0; i < 4000; ++i) {
        if (i % 7 == 0) {
            stream.answer(i < 3000 ? 120 : 20);
        }
        sent = stream.next((i < 3000 ? 60.0 : 10.0) * MILLISECOND);
        if (i > 1000) {
            EXPECT_NEAR(sent, 0, 11.0 * MILLISECOND) << i;
        }
    }
    EXPECT_NEAR(sent, 0, 1.0 * MILLISECOND);
}

TEST(SendClock, AJumpOfTheServersClockDoesNotForgetTheRoundTrips) {
    Stream stream;
    for (int i = 0; i < 4000; ++i) {
        if (i < 3000 && i % 7 == 0) {
            stream.answer(60);
        }
        if (i == 3000) {
            stream.shift(-500.0 * MILLISECOND);
        }
        const double sent = stream.next();
        if (i > 1000) {
            EXPECT_NEAR(sent, -30.0 * MILLISECOND, 1.0 * MILLISECOND) << i;
        }
    }
    EXPECT_EQ(stream.jumps(), 1U);
}
