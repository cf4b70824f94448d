#pragma once

#include <cstdint>

/// Time spent in libraries since the last reset, in nanoseconds. Measured by functions of this
/// program that wrap the libraries'.
struct CallTimes {
    std::int64_t opus = 0;  ///< opus_encode.
    std::int64_t enet = 0;  ///< ENet's calls, with waiting.
    std::int64_t wait = 0;  ///< poll, within ENet's service call.
};

extern CallTimes callTimes;

/// Monotonic time in nanoseconds.
std::int64_t nowNs();
