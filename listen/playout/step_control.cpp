#include "listen/playout/step_control.h"

#include <algorithm>

namespace vxlisten {

namespace {

constexpr double SETTLING_PPM_PER_MS = 2000;  ///< Half a second to come into step,
constexpr double PPM_PER_MS = 200;            ///< and later five seconds.
constexpr double SETTLING_MAXIMUM_PPM = 5000;
constexpr double MAXIMUM_PPM = 2000;

}  // namespace

double stepCorrection(double lateMs, double ratePpm, double age) {
    const double maximum = age < SETTLING_SECONDS ? SETTLING_MAXIMUM_PPM : MAXIMUM_PPM;
    const double slowdown = SETTLING_SECONDS / std::max(age, SETTLING_SECONDS);
    const double gain = std::max(PPM_PER_MS, SETTLING_PPM_PER_MS * slowdown * slowdown);
    return ratePpm + std::clamp(gain * lateMs, -maximum, maximum);
}

}  // namespace vxlisten
