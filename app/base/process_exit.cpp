#include "app/base/process_exit.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "app/base/Thread.h"
#include "app/base/console.h"
#include "app/base/main_loop.h"
#include "app/base/start_values.h"
#include "common/thread_check.h"

namespace {

constexpr int ANSWER_TIMEOUT_MS = 3000;
constexpr int WAIT_STEP_MS = 10;

std::atomic<int> finalExitStatus{0};

void endNow(int /*signal*/) {
    ::_exit(finalExitStatus.load());
}

void silenceStandardError() {
    std::fflush(stderr);
    const int devNull = ::open("/dev/null", O_WRONLY);
    ::dup2(devNull, STDERR_FILENO);
    ::close(devNull);
}

/// Waits for the main thread's exit. Returns only when it does not begin.
void waitForMainThread() {
    for (int waited = 0; waited < ANSWER_TIMEOUT_MS || mainThreadExitBegun();
         waited += WAIT_STEP_MS) {
        Sleep(WAIT_STEP_MS);
    }
}

}  // namespace

void limitExit(int status, unsigned seconds) {
    finalExitStatus.store(status);
    std::signal(SIGALRM, endNow);
    ::alarm(seconds);
}

void ExitProcess(int status) {
    limitExit(status);
    consoleDrain();
    if (!getVerbose()) {
        silenceStandardError();
    }
    if (onMainThread()) {
        prepareExit();
        std::exit(status);  // NOLINT(concurrency-mt-unsafe): the main thread's.
    }
    if (!requestMainThreadExit(status)) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no main loop that could do it.
        std::exit(status);
    }
    waitForMainThread();
    std::fflush(stdout);
    ::_exit(status);
}
