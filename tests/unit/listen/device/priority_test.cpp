#include "listen/device/priority.h"

#include <sched.h>
#include <thread>

#include <gtest/gtest.h>

TEST(Priority, SchedulingThatChildrenDoNotInheritIsKnown) {
    const bool allowed = vxlisten::realTimeAllowed();
    std::thread([allowed] {
        const int policy = allowed ? SCHED_RR : SCHED_OTHER;
        sched_param parameters = {};
        parameters.sched_priority = allowed ? 1 : 0;
        ASSERT_EQ(sched_setscheduler(0, policy | SCHED_RESET_ON_FORK, &parameters), 0);
        EXPECT_EQ(vxlisten::realTimeAllowed(), allowed);
        EXPECT_EQ(sched_getscheduler(0), policy | SCHED_RESET_ON_FORK);
        parameters.sched_priority = 0;
        ASSERT_EQ(sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &parameters), 0);
        vxlisten::raisePriority();
        EXPECT_EQ(sched_getscheduler(0), policy | SCHED_RESET_ON_FORK);
    }).join();
}
