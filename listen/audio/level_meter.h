#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vxlisten {

/// Level of digital silence, in dBFS.
constexpr double SILENCE_DBFS = -120.0;

/// Peak and mean level of stereo sound since the last clear(). Levels are in dB relative to the
/// largest sample value, SILENCE_DBFS for silence. Not thread-safe. Realtime-safe: yes.
class LevelMeter {
  public:
    static constexpr std::size_t CHANNELS = 2;

    /// Takes `count` interleaved stereo frames.
    void add(const std::int16_t* frames, std::size_t count);

    /// Forgets all frames.
    void clear() { *this = LevelMeter(); }

    [[nodiscard]] double peakDbfs(std::size_t channel) const;
    [[nodiscard]] double rmsDbfs(std::size_t channel) const;

  private:
    std::array<int, CHANNELS> peak_{};
    std::array<double, CHANNELS> squares_{};
    std::uint64_t frames_ = 0;
};

/// The peak level that a meter shows: held for a while, then falling.
class PeakHold {
  public:
    /// Takes a new peak in dBFS at `now` (microseconds) and returns the level to show.
    double update(double peakDbfs, std::int64_t now);

  private:
    double held_ = SILENCE_DBFS;
    std::int64_t heldSince_ = 0;
    std::int64_t last_ = 0;
};

}  // namespace vxlisten
