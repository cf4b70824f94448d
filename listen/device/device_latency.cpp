#include "listen/device/device_latency.h"

#include <algorithm>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr std::int64_t SETTLING = 3 * SECOND;
constexpr std::int64_t SPAN = 20 * SECOND;
/// One stall of a sound server makes several underruns.
constexpr std::int64_t STALL = SECOND;
constexpr unsigned TOO_MANY = 3;
/// So many that the sound is no use: then it is better late.
constexpr unsigned FAR_TOO_MANY = 10;

}  // namespace

void DeviceLatency::noteOpened(std::int64_t now) {
    opened_ = since_ = now;
    before_ = 0;
    counted_ = 0;
}

bool DeviceLatency::noteUnderruns(std::uint64_t count, std::int64_t now, bool fits) {
    // Underruns while a device starts do not count.
    if (now - opened_ < SETTLING || now - since_ >= SPAN) {
        since_ = now;
        counted_ = 0;
    } else if (count > before_ && (counted_ == 0 || now - latest_ >= STALL)) {
        ++counted_;
        latest_ = now;
    }
    before_ = count;
    if (counted_ < (fits ? TOO_MANY : FAR_TOO_MANY) || milliseconds_ >= MAXIMUM_MS) {
        return false;
    }
    milliseconds_ = std::min(2 * milliseconds_, MAXIMUM_MS);
    return true;
}

}  // namespace vxlisten
