#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "listen/network/sequence_tracker.h"

namespace vxweb {

/// Computes where an endless stream needs silence to keep pace with time, and which sound is too
/// late. It follows the server's clock up to a difference of 1000 ppm. Frames are those of the
/// stream, times are microseconds. Not thread-safe.
class StreamClock {
  public:
    /// What to do with a packet.
    struct Arrival {
        std::size_t silence = 0;  ///< Frames to write before it.
        bool late = false;        ///< Its time is filled already: drop it.
    };

    /// `rate` in Hz, 0 for that of the first packet (48000 when silence comes first). Silence is
    /// a multiple of `unit` frames.
    explicit StreamClock(int rate, std::size_t unit) : rate_(rate), unit_(unit) {}

    /// Takes a packet of `frames` frames at `packetRate` Hz that arrived at `now`. The silence
    /// counts as written.
    Arrival arrive(std::int64_t now, std::size_t frames, int packetRate,
                   const vxlisten::SequenceStep& step);

    /// Frames of silence to write at `now`, without a packet; they count as written.
    std::size_t pass(std::int64_t now);

    /// Counts `frames` of sound that were written.
    void wrote(std::size_t frames);

    /// Hz; 0 before the first packet has decided it.
    [[nodiscard]] int rate() const { return rate_; }

  private:
    void begin(std::int64_t now, int rate);
    [[nodiscard]] std::int64_t reach() const;
    [[nodiscard]] std::size_t framesIn(std::int64_t microseconds) const;
    std::size_t fill(std::int64_t microseconds);
    std::size_t settle(std::int64_t now, std::int64_t lag);

    int rate_;
    std::size_t unit_;
    bool begun_ = false;
    std::optional<std::int64_t> waitsSince_;  ///< The first pass() without sound.
    std::int64_t origin_ = 0;                 ///< A time in the stream,
    std::uint64_t written_ = 0;               ///< and the frames since then, less than a second.
    std::int64_t lastArrival_ = 0;
    std::size_t filled_ = 0;  ///< Frames of silence whose sound may still arrive.
    std::optional<std::int64_t> windowEnd_;
    std::int64_t minimumLag_ = 0;  ///< In the present window.
};

}  // namespace vxweb
