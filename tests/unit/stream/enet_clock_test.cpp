#include "stream/enet_clock.h"

#include <ctime>
#include <dlfcn.h>

#include <enet/enet.h>
#include <gtest/gtest.h>

namespace {

enet_uint32 monotonicMilliseconds() {
    std::timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<enet_uint32>(now.tv_sec) * 1000U +
           static_cast<enet_uint32>(now.tv_nsec / 1000000);
}

constexpr enet_uint32 MAX_DIFFERENCE_MS = 60000;

TEST(EnetClock, IsTheMonotonicOneInsideTheLibraryToo) {
    ENetHost* const host = enet_host_create(nullptr, 1, 1, 0, 0);
    ASSERT_NE(host, nullptr);
    enet_time_set(12345);  // As if the calendar clock had been set.
    const enet_uint32 before = monotonicMilliseconds();
    enet_host_flush(host);
    EXPECT_LT(host->serviceTime - before, MAX_DIFFERENCE_MS);
    enet_host_destroy(host);
}

TEST(EnetClock, SetsTheLibrarysOwnClockRight) {
    using TimeGet = enet_uint32 (*)();
    const auto librarysOwn = reinterpret_cast<TimeGet>(dlsym(RTLD_NEXT, "enet_time_get"));
    ASSERT_NE(librarysOwn, nullptr);
    enet_time_set(12345);
    const enet_uint32 before = monotonicMilliseconds();
    ASSERT_GE(librarysOwn() - before, MAX_DIFFERENCE_MS);
    steadyEnetClock();
    EXPECT_LT(librarysOwn() - before, MAX_DIFFERENCE_MS);
}

TEST(EnetClock, IsSteadyBetweenTwoBlocks) {
    steadyEnetClock();
    const enet_uint32 before = monotonicMilliseconds();
    enet_time_set(12345);
    EXPECT_LT(enet_time_get() - before, MAX_DIFFERENCE_MS);
}

}  // namespace
