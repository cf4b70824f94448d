#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vxlisten {

/// Decides how much sound to keep buffered: at least what the user chose, and as much more as the
/// jitter of the network and of the device, and recent underruns, require. Where the user chose
/// nothing it starts from a value that suffices on most networks and shrinks to what is required.
/// It grows as soon as a few packets have come later than it covers, or an underrun was near, and
/// shrinks back when that has not happened for half a minute or so. Packets that come at once
/// after a delay count as one, so that a single long stall does not make all later sound late.
/// Times are given, not taken from a clock. Not thread-safe. Realtime-safe: yes.
class DelayTarget {
  public:
    static constexpr double MINIMUM_MS = 10;
    static constexpr double MAXIMUM_MS = 500;

    /// It starts at `startMs`, which is the minimum if the user has `chosen` it.
    DelayTarget(double startMs, bool chosen) : start_(startMs), floor_(startMs), chosen_(chosen) {}

    /// Notes that the packet which begins `mediaTime` microseconds into its stream came at
    /// `arrival` (microseconds) and lasts `packetMs`.
    void noteArrival(std::int64_t mediaTime, std::int64_t arrival, double packetMs);

    /// Forgets the arrivals, as for a new stream.
    void restart();

    /// Notes that the device asks at `now` (microseconds) for what follows `asked` milliseconds of
    /// sound. `idle`: it gets silence.
    void noteDemand(double asked, std::int64_t now, bool idle);

    /// Notes how much is left after the device has got its part: now, and in the mean.
    void noteDepth(double leftMs, double meanMs);

    /// Notes an underrun.
    void noteUnderrun();

    /// Lets `seconds` pass, after which an old underrun weighs less.
    void pass(double seconds);

    /// What to keep buffered after the device has got its part, in milliseconds. At least
    /// MINIMUM_MS if the user chose, else a packet; at most MAXIMUM_MS.
    [[nodiscard]] double milliseconds() const;

    /// How much faster to play while it shrinks from where it started, in parts per million.
    [[nodiscard]] double shrinkingPpm() const;

    /// What repeated underruns ask for in addition, in milliseconds; 0 after a single one.
    [[nodiscard]] double repeatedMs() const;

    /// How late nearly all packets are at most, against the quickest ones, in milliseconds.
    [[nodiscard]] double jitterMs() const { return jitterMs_; }

  private:
    void count(double latenessMs);
    [[nodiscard]] double neededMs() const;

    static constexpr double BINS_PER_MS = 4;
    static constexpr std::size_t BINS = 2000;

    double start_;
    double floor_;  ///< The minimum for now.
    bool chosen_;
    double extra_ = 0;       ///< Milliseconds on account of underruns.
    double sinceDip_ = 0;    ///< Seconds since an underrun was near.
    double demand_ = 0;      ///< How much earlier than in the mean the device asks, milliseconds,
    double demandMean_ = 0;  ///< and that mean: what it asked for against the time.
    std::int64_t demandStart_ = -1;
    std::int64_t lastDemand_ = 0;
    double packetMs_ = 0;
    double jitterMs_ = 0;
    double meanLateMs_ = 0;
    bool started_ = false;
    std::int64_t earliest_ = 0;     ///< Smallest transit time, of an older and the present window.
    std::int64_t earliestNow_ = 0;  ///< Smallest transit time of the present window.
    std::int64_t windowEnd_ = 0;
    std::int64_t lastArrival_ = 0;
    double lastLatenessMs_ = 0;
    std::array<double, BINS> lateness_{};  ///< How many packets were how late, fading with time.
    double total_ = 0;
};

}  // namespace vxlisten
