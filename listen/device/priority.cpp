#include "listen/device/priority.h"

#include <cstdlib>
#include <filesystem>
#include <sched.h>
#include <sys/resource.h>
#include <system_error>

namespace vxlisten {

namespace {

/// Below that of a sound server.
constexpr int REAL_TIME_PRIORITY = 2;
constexpr int NICE = -11;

void raise(pid_t thread) {
    sched_param parameters = {};
    parameters.sched_priority = REAL_TIME_PRIORITY;
    if ((sched_getscheduler(thread) & ~SCHED_RESET_ON_FORK) != SCHED_OTHER) {
        return;  // The user has chosen one.
    }
    if (sched_setscheduler(thread, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) != 0) {
        setpriority(PRIO_PROCESS, static_cast<id_t>(thread), NICE);
    }
}

}  // namespace

bool realTimeAllowed() {
    const int scheduler = sched_getscheduler(0);
    const int flag = scheduler & SCHED_RESET_ON_FORK;  // Cannot be cleared.
    const int policy = scheduler & ~SCHED_RESET_ON_FORK;
    if (policy != SCHED_OTHER) {
        return policy == SCHED_RR || policy == SCHED_FIFO;
    }
    sched_param parameters = {};
    parameters.sched_priority = REAL_TIME_PRIORITY;
    if (sched_setscheduler(0, SCHED_RR | flag, &parameters) != 0) {
        return false;
    }
    parameters.sched_priority = 0;
    return sched_setscheduler(0, SCHED_OTHER | flag, &parameters) == 0;
}

void raisePriority() {
    // Does nothing where there is no such folder; threads may end meanwhile.
    std::error_code error;
    for (std::filesystem::directory_iterator task("/proc/self/task", error), end;
         !error && task != end; task.increment(error)) {
        raise(static_cast<pid_t>(std::strtol(task->path().filename().c_str(), nullptr, 10)));
    }
}

}  // namespace vxlisten
