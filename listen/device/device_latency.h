#pragma once

#include <cstdint>

namespace vxlisten {

/// Decides how much latency to ask the output device for: little at first, more when the device
/// runs dry again and again. Times are given, not taken from a clock. Not thread-safe.
class DeviceLatency {
  public:
    /// Milliseconds. Less than the first is promised by some devices and kept by few: a sound
    /// server behind ALSA runs dry at 40 ms as soon as the machine is busy, and takes two seconds
    /// to get going again. Where programs that play go before all others it is kept;
    /// 20 ms only where the sound server does so, too.
    static constexpr double FIRST_MS = 80;
    static constexpr double REAL_TIME_MS = 40;
    static constexpr double MAXIMUM_MS = 320;

    explicit DeviceLatency(double firstMs = FIRST_MS) : milliseconds_(firstMs) {}

    /// The device was opened at `now` (microseconds), its underruns count from 0.
    void noteOpened(std::int64_t now);

    /// Takes the device's count of underruns. True when it is to be opened again with the greater
    /// latency that milliseconds() then tells.
    bool noteUnderruns(std::uint64_t count, std::int64_t now);

    [[nodiscard]] double milliseconds() const { return milliseconds_; }

  private:
    double milliseconds_;
    std::int64_t opened_ = 0;
    std::int64_t since_ = 0;    ///< Start of the span that underruns are counted over,
    std::uint64_t before_ = 0;  ///< and the device's count then.
};

}  // namespace vxlisten
