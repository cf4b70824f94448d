#include "listen/stop_request.h"

#include <atomic>
#include <cassert>
#include <csignal>

#include "common/thread_check.h"

namespace vxlisten {

namespace {

std::atomic<bool> requested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void onSignal(int /*number*/) {
    requested.store(true, std::memory_order_relaxed);
}

}  // namespace

void installStopRequest() {
    assert(onMainThread());
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // So that blocking calls are interrupted.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    struct sigaction before = {};
    sigaction(SIGHUP, nullptr, &before);
    if (before.sa_handler != SIG_IGN) {  // nohup sets SIG_IGN.
        sigaction(SIGHUP, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    action.sa_flags = 0;
    sigaction(SIGPIPE, &action, nullptr);
    sigaction(SIGXFSZ, &action, nullptr);  // A write that is too large then fails.
}

bool stopRequested() {
    return requested.load(std::memory_order_relaxed);
}

}  // namespace vxlisten
