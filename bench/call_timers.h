#pragma once

#include <cstdint>

/// Time spent inside other people's code since the last reset, in nanoseconds. Measured by
/// functions in this program that stand in front of the libraries' own.
struct CallTimes {
    std::int64_t opus = 0;  ///< opus_encode.
    std::int64_t enet = 0;  ///< ENet's calls, waiting included.
    std::int64_t wait = 0;  ///< poll, within ENet's service call.
};

extern CallTimes callTimes;

/// Monotonic time in nanoseconds.
std::int64_t nowNs();
