#include "listen/playout/send_clock.h"

#include <algorithm>
#include <array>

#include <gtest/gtest.h>

#include "listen/clock.h"
#include "stream/wire_format.h"

using vxlisten::MILLISECOND;

namespace {

/// Raw packets at an even pace.
class Stream {
  public:
    /// When the first frame of the next packet counts as sent, against its place in the stream;
    /// microseconds.
    double next() {
        vxlisten::DecodedBlock block;
        block.frames = silence_.data();
        block.count = wire::RAW_BLOCK_FRAMES;
        block.sampleRate = 48000;
        block.join = time_ > 0 ? vxlisten::Join::Continues : vxlisten::Join::NewStream;
        const double sent = clock_.next(block, {}, static_cast<std::int64_t>(time_)).first - time_;
        time_ += static_cast<double>(wire::RAW_BLOCK_FRAMES) * 1e6 / 48000;
        return sent;
    }

    void answer(double milliseconds) { clock_.noteRoundTrip(milliseconds * MILLISECOND); }

  private:
    vxlisten::SendClock clock_;
    double time_ = 0;
    std::array<std::int16_t, 2 * wire::RAW_BLOCK_FRAMES> silence_{};
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
