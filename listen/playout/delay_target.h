#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vxlisten {

/// Decides how much sound to keep buffered: at least what the user chose, and as much more as the
/// network's recent unevenness and recent underruns ask for. It starts from the wish, grows as soon
/// as a few packets have come later than it covers, before the sound runs dry if it can, and
/// shrinks back when that has not happened for half a minute or so. Packets that come at once after
/// a delay count as one, so that a single long stall does not make all later sound late. Times are
/// given, not taken from a clock. Not thread-safe. Realtime-safe: yes.
class DelayTarget {
  public:
    static constexpr double LEAST_MS = 10;
    static constexpr double MOST_MS = 500;

    /// `chosenMs` is the user's wish.
    explicit DelayTarget(double chosenMs) : chosen_(chosenMs) {}

    /// Notes that the packet which begins `mediaTime` microseconds into its stream came at
    /// `arrival` (microseconds) and lasts `packetMs`.
    void noteArrival(std::int64_t mediaTime, std::int64_t arrival, double packetMs);

    /// Forgets the arrivals, as for a new stream.
    void restart();

    /// Notes that the sound ran dry.
    void noteUnderrun();

    /// Lets `seconds` pass, after which an old underrun weighs less.
    void pass(double seconds);

    /// What to keep buffered, in milliseconds, LEAST_MS to MOST_MS.
    [[nodiscard]] double milliseconds() const;

    /// How late nearly all packets are at most, against the quickest ones, in milliseconds.
    [[nodiscard]] double jitterMs() const { return jitterMs_; }

  private:
    void count(double latenessMs);

    static constexpr std::size_t BINS = 500;  ///< Of one millisecond each.

    double chosen_;
    double extra_ = 0;  ///< Milliseconds on account of underruns.
    double packetMs_ = 0;
    double jitterMs_ = 0;
    bool started_ = false;
    std::int64_t quickest_ = 0;     ///< Smallest transit time, of an older and the present window.
    std::int64_t quickestNow_ = 0;  ///< Smallest transit time of the present window.
    std::int64_t windowEnd_ = 0;
    std::int64_t lastArrival_ = 0;
    double lastLatenessMs_ = 0;
    std::array<double, BINS> lateness_{};  ///< How many packets were how late, fading with time.
    double total_ = 0;
};

}  // namespace vxlisten
