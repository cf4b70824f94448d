#include "listen/audio/level_meter.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr double FULL_SCALE = 32768.0;
constexpr std::int64_t HOLD_TIME = 1500 * MILLISECOND;
constexpr double FALL_PER_SECOND = 20.0;  ///< dB.

double toDbfs(double value) {
    return value > 0 ? std::max(SILENCE_DBFS, 20.0 * std::log10(value / FULL_SCALE)) : SILENCE_DBFS;
}

double rootMean(double squares, std::uint64_t count) {
    return count > 0 ? std::sqrt(squares / static_cast<double>(count)) : 0.0;
}

}  // namespace

void LevelMeter::add(const std::int16_t* frames, std::size_t count) {
    for (std::size_t i = 0; i < count * CHANNELS; ++i) {
        const int value = frames[i];
        peak_[i % CHANNELS] = std::max(peak_[i % CHANNELS], std::abs(value));
        squares_[i % CHANNELS] += static_cast<double>(value) * value;
    }
    frames_ += count;
}

double LevelMeter::peakDbfs(std::size_t channel) const {
    return toDbfs(peak_[channel]);
}

double LevelMeter::rmsDbfs(std::size_t channel) const {
    return toDbfs(rootMean(squares_[channel], frames_));
}

double PeakHold::update(double peakDbfs, std::int64_t now) {
    const double seconds = static_cast<double>(now - last_) / static_cast<double>(SECOND);
    last_ = now;
    if (peakDbfs >= held_) {
        held_ = peakDbfs;
        heldSince_ = now;
    } else if (now - heldSince_ > HOLD_TIME) {
        held_ = std::max(peakDbfs, held_ - FALL_PER_SECOND * seconds);
    }
    return held_;
}

}  // namespace vxlisten
