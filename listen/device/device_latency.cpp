#include "listen/device/device_latency.h"

#include <algorithm>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr std::int64_t SETTLING = 3 * SECOND;
constexpr std::int64_t SPAN = 20 * SECOND;
constexpr std::uint64_t TOO_MANY = 3;

}  // namespace

void DeviceLatency::noteOpened(std::int64_t now) {
    opened_ = since_ = now;
    before_ = 0;
}

bool DeviceLatency::noteUnderruns(std::uint64_t count, std::int64_t now) {
    // Underruns while a device starts do not count.
    if (now - opened_ < SETTLING || now - since_ >= SPAN) {
        since_ = now;
        before_ = count;
    }
    if (count - before_ < TOO_MANY || milliseconds_ >= MAXIMUM_MS) {
        return false;
    }
    milliseconds_ = std::min(2 * milliseconds_, MAXIMUM_MS);
    return true;
}

}  // namespace vxlisten
