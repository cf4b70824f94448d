#pragma once

#include <chrono>
#include <cstdint>

namespace vxlisten {

constexpr std::int64_t MILLISECOND = 1000;
constexpr std::int64_t SECOND = 1000 * MILLISECOND;
constexpr double MICROSECONDS_PER_MILLISECOND = MILLISECOND;
constexpr double MICROSECONDS_PER_SECOND = SECOND;

/// The time that everything in the program goes by, in microseconds of a clock that never jumps.
/// Thread: any. Realtime-safe: yes.
inline std::int64_t steadyNow() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace vxlisten
