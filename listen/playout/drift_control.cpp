#include "listen/playout/drift_control.h"

#include <algorithm>
#include <cmath>

namespace vxlisten {

namespace {

// One ppm moves the depth by a microsecond a second, so that these gains make a critically damped
// loop with a time constant of 50 s: fast against the drift of clocks, slow against jitter.
constexpr double PPM_PER_MS = 40;
constexpr double PPM_PER_MS_SECOND = 0.4;
/// Beyond this the deviation has another reason than drift.
constexpr double LEARNING_LIMIT_MS = 15;

}  // namespace

double DriftControl::update(double deviationMs, double seconds) {
    if (std::abs(deviationMs) < LEARNING_LIMIT_MS) {
        integral_ = std::clamp(integral_ + PPM_PER_MS_SECOND * deviationMs * seconds, -MAXIMUM_PPM,
                               MAXIMUM_PPM);
    }
    return std::clamp(PPM_PER_MS * deviationMs + integral_, -MAXIMUM_PPM, MAXIMUM_PPM);
}

}  // namespace vxlisten
