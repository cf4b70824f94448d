#include "listen/playout/step_control.h"

#include <algorithm>

namespace vxlisten {

namespace {

constexpr double YOUNG = 3;                ///< Seconds.
constexpr double YOUNG_PPM_PER_MS = 2000;  ///< Half a second to come into step,
constexpr double PPM_PER_MS = 200;         ///< and later five seconds.
constexpr double YOUNG_MOST_PPM = 5000;
constexpr double MOST_PPM = 2000;

}  // namespace

double stepCorrection(double lateMs, double ratePpm, double age) {
    const double most = age < YOUNG ? YOUNG_MOST_PPM : MOST_PPM;
    const double calm = YOUNG / std::max(age, YOUNG);
    const double gain = std::max(PPM_PER_MS, YOUNG_PPM_PER_MS * calm * calm);
    return ratePpm + std::clamp(gain * lateMs, -most, most);
}

}  // namespace vxlisten
