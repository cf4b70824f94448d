#include "listen/priority.h"

#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <sched.h>
#include <sys/resource.h>

namespace vxlisten {

namespace {

/// Low among the real-time ones: a sound server has to go first.
constexpr int REAL_TIME_PRIORITY = 2;
constexpr int NICE = -11;

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

void raise(pid_t thread) {
    sched_param parameters = {};
    parameters.sched_priority = REAL_TIME_PRIORITY;
    if (sched_getscheduler(thread) != SCHED_OTHER) {
        return;  // Somebody has chosen already.
    }
    if (sched_setscheduler(thread, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) != 0) {
        setpriority(PRIO_PROCESS, static_cast<id_t>(thread), NICE);
    }
}

}  // namespace

void raisePriority() {
    const std::unique_ptr<DIR, DirectoryCloser> tasks(opendir("/proc/self/task"));
    while (const dirent* const task = tasks != nullptr ? readdir(tasks.get()) : nullptr) {
        const auto thread = static_cast<pid_t>(std::strtol(task->d_name, nullptr, 10));
        if (thread > 0) {
            raise(thread);
        }
    }
}

}  // namespace vxlisten
