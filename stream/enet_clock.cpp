#include "stream/enet_clock.h"

#include <cassert>
#include <ctime>

#include <enet/enet.h>

#include "stream/capture_thread.h"

namespace {

/// Milliseconds since the machine started; wraps at 2^32, as ENet's times do.
enet_uint32 steadyMilliseconds() {
    std::timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<enet_uint32>(now.tv_sec) * 1000U +
           static_cast<enet_uint32>(now.tv_nsec / 1000000);
}

}  // namespace

// Takes the place of the library's own function.
extern "C" __attribute__((visibility("default"))) enet_uint32 enet_time_get() {
    return steadyMilliseconds();
}

void steadyEnetClock() {
    assert(captureThread.here());
    enet_time_set(steadyMilliseconds());
}
