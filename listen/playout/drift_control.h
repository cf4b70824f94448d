#pragma once

namespace vxlisten {

/// Keeps the buffered sound at its target by playing very slightly faster or slower: a
/// proportional-integral controller whose integral settles at the difference between the server's
/// clock and the output device's. Not thread-safe. Realtime-safe: yes.
class DriftControl {
  public:
    /// Largest correction in parts per million: less than one cent of pitch.
    static constexpr double MAXIMUM_PPM = 500;

    /// Takes the deviation of the buffer's depth from its target over the last `seconds` and
    /// returns the correction: how many parts per million faster to play.
    double update(double deviationMs, double seconds);

  private:
    double integral_ = 0;
};

}  // namespace vxlisten
