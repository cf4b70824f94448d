#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"

namespace vxlisten {

/// When a block of sound was sent, by this computer's clock. Times in microseconds.
struct SendTime {
    /// When its first frame counts as sent: frames captured at the same moment have the same time
    /// in all kinds of packets.
    double first = 0;
    double framePeriod = 0;  ///< From one frame to the next; 0: the times are not known.
    double ahead = 0;        ///< How much before its earliest possible arrival `first` is.
};

/// Estimates from arrivals when the server sent its packets. The server sends a packet to all
/// clients at once, so all listeners get the same times: the common clock of rooms in step. The
/// earliest arrivals lie on a line, whose slope is the server's clock against ours; packets above
/// it came late. The sound system's blocks do not match the server's packets, so even without a
/// network only about one packet in two seconds lies on the line. Half the minimum round trip is
/// subtracted. Times are given, not taken from a clock. Not thread-safe.
class SendClock {
  public:
    /// Takes the next block of the stream, from `packet` that arrived at `now` (microseconds), and
    /// returns when it was sent. Concealed blocks do not count as arrivals.
    SendTime next(const DecodedBlock& block, const AudioPacket& packet, std::int64_t now);

    /// Notes a round-trip time in microseconds.
    void noteRoundTrip(double roundTrip);

    /// How often the server's clock jumped while it was known well and the estimate started over.
    [[nodiscard]] unsigned jumps() const { return jumps_; }

    /// How much faster than ours the server's clock runs, in parts per million.
    [[nodiscard]] double serverPpm() const { return -slope_; }

  private:
    static constexpr double NONE = 1e12;
    static constexpr std::size_t PLACES = 8;  ///< Of the earliest arrivals of a span.

    /// The smallest of some values, in order.
    template <std::size_t SIZE>
    class Least {
      public:
        Least() { values_.fill(NONE); }
        /// True when it is the smallest so far.
        bool add(double value) {
            std::size_t at = SIZE;
            for (; at > 0 && value < values_[at - 1]; --at) {
                if (at < SIZE) {
                    values_[at] = values_[at - 1];
                }
            }
            if (at < SIZE) {
                values_[at] = value;
            }
            return at == 0;
        }
        [[nodiscard]] double operator[](std::size_t at) const { return values_[at]; }
        /// Difference of the last and the first; 0 when there are fewer.
        [[nodiscard]] double spread() const {
            return values_[SIZE - 1] < NONE ? values_[SIZE - 1] - values_[0] : 0.0;
        }

      private:
        std::array<double, SIZE> values_;
    };

    /// The arrivals in a span of the stream.
    struct Span {
        double time = 0;          ///< Of the earliest arrival, seconds of the stream.
        Least<PLACES> residuals;  ///< Arrivals against the stream's time, microseconds.
        Least<3> roundTrips;      ///< Microseconds.
        std::uint32_t packets = 0;

        [[nodiscard]] double least() const { return residuals[0]; }
    };

    static constexpr std::size_t MAXIMUM_SPANS = 32;

    void restart(std::int64_t now);
    void forgetArrivals();
    void noteArrival(double time, double residual);
    [[nodiscard]] bool isJump(double time, double residual);
    void finishSpan(double time);
    void judgeRecent();
    void fitSlope();
    [[nodiscard]] double rawSlope(double& extent) const;
    [[nodiscard]] double noise() const;
    void fitOffset();
    [[nodiscard]] double lineAt(double time) const { return offset_ + slope_ * time; }
    [[nodiscard]] double minimumRoundTrip(std::size_t from, std::size_t to) const;
    [[nodiscard]] double halfRoundTrip() const;

    std::int64_t origin_ = 0;  ///< Arrival of the first packet.
    int sampleRate_ = 0;
    double position_ = 0;  ///< Frames of the stream before the next block.
    double offset_ = 0;    ///< Of the line, microseconds.
    double slope_ = 0;     ///< Microseconds a second.
    /// The last ones are the newest; spans_[spanCount_] is the present one.
    std::array<Span, MAXIMUM_SPANS + 1> spans_{};
    std::size_t spanCount_ = 0;
    double spanEnd_ = 0;
    double age_ = 0;          ///< Seconds of data for the slope.
    double lateSince_ = -1;   ///< Arrival since which all packets are as late; -1: not so. Seconds.
    double lateFirst_ = 0;    ///< The lateness then,
    double lateMinimum_ = 0;  ///< the least since then,
    double lateTrip_ = 0;     ///< and the least round trip.
    unsigned jumps_ = 0;
};

}  // namespace vxlisten
