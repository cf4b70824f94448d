#include "tests/unit/stream/shifted_clock.h"

#include <ctime>

namespace {

std::chrono::milliseconds shift{0};

}  // namespace

void shiftClock(std::chrono::milliseconds time) {
    shift += time;
}

extern "C" {

int __real_clock_gettime(clockid_t clock, std::timespec* now);

int __wrap_clock_gettime(clockid_t clock, std::timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    const std::chrono::nanoseconds shifted =
        std::chrono::seconds(now->tv_sec) + std::chrono::nanoseconds(now->tv_nsec) + shift;
    now->tv_sec = std::chrono::duration_cast<std::chrono::seconds>(shifted).count();
    now->tv_nsec = (shifted % std::chrono::seconds(1)).count();
    return result;
}
}
