#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"

namespace vxlisten {

/// When a block of sound was sent, by this computer's clock. Times in microseconds.
struct SendTime {
    /// When its first frame counts as sent: frames that were captured at the same moment have the
    /// same time, in whatever packets they come.
    double first = 0;
    double framePeriod = 0;  ///< From one frame to the next; 0: the times are not known.
    double ahead = 0;        ///< How much before its earliest possible arrival `first` is.
};

/// Estimates when the server sent its packets from when they arrive. The server hands a packet to
/// all clients at once, so that all who listen find the same times: they are the clock that rooms
/// keep step by. The earliest arrivals lie on a line: its slope is the server's clock against ours,
/// and what lies above it came late. The server captures in blocks that do not match its packets,
/// so that even without a network only one packet in two seconds or so lies on the line. Half the
/// least round trip is taken off it. Times are given, not taken from a clock. Not thread-safe.
class SendClock {
  public:
    /// Takes the next block of the stream, which `packet` brought that came at `now`
    /// (microseconds), and tells when it was sent. Concealed blocks are not judged.
    SendTime next(const DecodedBlock& block, const AudioPacket& packet, std::int64_t now);

    /// Takes a round trip to the server and back, in microseconds.
    void noteRoundTrip(double roundTrip);

    /// Times that the server's clock jumped while it was known well: the estimate began anew.
    [[nodiscard]] unsigned jumps() const { return jumps_; }

    /// How much faster than ours the server's clock runs, in parts per million.
    [[nodiscard]] double serverPpm() const { return -slope_; }

  private:
    static constexpr double NONE = 1e12;
    static constexpr std::size_t PLACES = 8;  ///< Of the earliest arrivals of a span.

    /// The least ones of some values, in order.
    template <std::size_t SIZE>
    class Least {
      public:
        Least() { values_.fill(NONE); }
        /// True when it is the least until now.
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
        /// How far they lie apart; 0 when there are not so many.
        [[nodiscard]] double spread() const {
            return values_[SIZE - 1] < NONE ? values_[SIZE - 1] - values_[0] : 0.0;
        }

      private:
        std::array<double, SIZE> values_;
    };

    /// What a span of the stream brought.
    struct Span {
        double time = 0;          ///< Of the earliest arrival, seconds of the stream.
        Least<PLACES> residuals;  ///< Arrivals against the stream's time, microseconds.
        Least<3> roundTrips;      ///< Microseconds.
        std::uint32_t packets = 0;

        [[nodiscard]] double least() const { return residuals[0]; }
    };

    static constexpr std::size_t MAXIMUM_SPANS = 32;

    void restart(std::int64_t now);
    void forgetSpans();
    void noteArrival(double time, double residual);
    [[nodiscard]] bool isJump(double time, double residual);
    void finishSpan(double time);
    void judgeRecent();
    void fitSlope();
    [[nodiscard]] double rawSlope(double& extent) const;
    [[nodiscard]] double noise() const;
    void fitOffset();
    [[nodiscard]] double lineAt(double time) const { return offset_ + slope_ * time; }
    [[nodiscard]] double leastRoundTrip(std::size_t from, std::size_t to) const;
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
    double age_ = 0;         ///< Seconds that the slope has been learnt for.
    double lateSince_ = -1;  ///< Arrival since which all packets are as late; -1: not so. Seconds.
    double lateFirst_ = 0;   ///< The lateness then,
    double lateLeast_ = 0;   ///< the least since then,
    double lateTrip_ = 0;    ///< and the least round trip.
    unsigned jumps_ = 0;
};

}  // namespace vxlisten
