#pragma once

#include <cstdint>

namespace vxlisten {

/// Decides how much latency to request from the output device: little at first, more after repeated
/// underruns. Times are given, not taken from a clock. Not thread-safe.
class DeviceLatency {
  public:
    /// Milliseconds. Some devices promise less than the first, but few keep it: a sound server
    /// behind ALSA has underruns at 40 ms as soon as the machine is busy, and takes two seconds to
    /// recover. With real-time scheduling 40 ms are enough; 20 ms only if the sound server has it,
    /// too.
    static constexpr double FIRST_MS = 80;
    static constexpr double REAL_TIME_MS = 40;
    static constexpr double MAXIMUM_MS = 320;

    explicit DeviceLatency(double firstMs = FIRST_MS) : milliseconds_(firstMs) {}

    /// The device was opened at `now` (microseconds), its underruns count from 0.
    void noteOpened(std::int64_t now);

    /// Takes the device's count of underruns; several within a second count as one. `fits` is
    /// false when twice the latency is more than the chosen delay allows: then it takes more of
    /// them. True when the device must be reopened with more latency: milliseconds().
    bool noteUnderruns(std::uint64_t count, std::int64_t now, bool fits = true);

    [[nodiscard]] double milliseconds() const { return milliseconds_; }

  private:
    double milliseconds_;
    std::int64_t opened_ = 0;
    std::int64_t since_ = 0;    ///< Start of the span that underruns are counted over,
    unsigned counted_ = 0;      ///< those counted in it,
    std::int64_t latest_ = 0;   ///< and when the last one was.
    std::uint64_t before_ = 0;  ///< The device's count at the last call.
};

}  // namespace vxlisten
