#include "listen/console/peak_hold.h"

#include <algorithm>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr std::int64_t HOLD_TIME = 1500 * MILLISECOND;
constexpr double FALL_PER_SECOND = 20.0;  ///< dB.

}  // namespace

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
