#include "app/process_exit.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "app/Thread.h"
#include "app/console.h"
#include "app/main_loop.h"
#include "app/start_values.h"

namespace {

constexpr int ANSWER_PATIENCE_MS = 3000;
constexpr int EXIT_PATIENCE_MS = 30000;
constexpr int WAIT_STEP_MS = 10;

void silenceStandardError() {
    const int nowhere = ::open("/dev/null", O_WRONLY);
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
}

bool onMainThread() {
    return ::gettid() == ::getpid();
}

/// Waits for the main thread's exit. Returns only when it does not come.
void waitForMainThread() {
    for (int waited = 0; waited < ANSWER_PATIENCE_MS && !mainThreadExitBegun();
         waited += WAIT_STEP_MS) {
        Sleep(WAIT_STEP_MS);
    }
    if (mainThreadExitBegun()) {
        Sleep(EXIT_PATIENCE_MS);
    }
}

}  // namespace

void ExitProcess(int status) {
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
