#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vxlisten {

/// Tells when a frame that was given to the output device is heard, from the device's time stamps.
/// The first ones of a stream say nothing, a sound server's vary by some tenths of a millisecond,
/// and by some milliseconds for a while after a stall: what counts is the line through the medians
/// of the last ten seconds that half of them cannot move. Times are given, not taken from a clock.
/// Not thread-safe. Realtime-safe: yes.
class OutputClock {
  public:
    /// A latency that is not known.
    static constexpr double UNKNOWN = -1;

    /// `rate` of the device in Hz; `nominal` is its latency in microseconds where it gives no
    /// time stamps that can be true.
    OutputClock(int rate, double nominal) : rate_(rate), nominal_(nominal) {}

    /// The device asked at `now` for the frames from `frame` on, counted from its start, and says
    /// that the first of them is heard `latency` microseconds later.
    void note(std::uint64_t frame, std::int64_t now, double latency);

    /// Begins anew, as after an underrun of the device.
    void restart();

    /// True once the device runs at its pace and the times can be relied on.
    [[nodiscard]] bool settled() const { return spanCount_ > 0; }

    /// True when the device's time stamps cannot be true and the nominal latency stands for them.
    [[nodiscard]] bool nominalOnly() const { return settled() && nominalOnly_; }

    /// When a frame is heard, in microseconds.
    [[nodiscard]] double heardAt(double frame) const;

    /// How much faster than this computer's clock the device plays, in parts per million.
    [[nodiscard]] double devicePpm() const { return -slope_; }

  private:
    static constexpr std::size_t MAXIMUM_SPANS = 20;
    static constexpr std::size_t MAXIMUM_STAMPS = 64;

    struct Point {
        double time = 0;   ///< Seconds, by the count of frames.
        double value = 0;  ///< Microseconds between that and when it is heard.
    };

    void finishSpan(std::int64_t now, double time);
    void fit();

    int rate_;
    double nominal_;
    std::int64_t origin_ = -1;  ///< When the device first asked.
    std::int64_t spanStart_ = 0;
    std::int64_t latestCall_ = 0;
    double spanStartTime_ = 0;
    unsigned spansSeen_ = 0;
    std::array<double, MAXIMUM_STAMPS> stamps_{};
    std::array<double, MAXIMUM_STAMPS> nominals_{};  ///< The same with the nominal latency.
    std::size_t stampCount_ = 0;
    std::size_t nominalCount_ = 0;
    std::array<Point, MAXIMUM_SPANS> spans_{};
    std::size_t spanCount_ = 0;
    bool nominalOnly_ = false;
    double latest_ = 0;  ///< Value of the latest call, before it has settled.
    double slope_ = 0;   ///< Microseconds a second.
    double offset_ = 0;  ///< Microseconds.
};

}  // namespace vxlisten
