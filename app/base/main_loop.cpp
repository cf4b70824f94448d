#include "app/base/main_loop.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
// IWYU pragma: no_include <utility>

#include "app/base/console.h"
#include "common/thread_check.h"

namespace {

// A request must be one byte: a signal handler writes it.
constexpr char QUIT_REQUEST = 'q';
constexpr char EXIT_REQUEST = 'x';

int requestPipe[2] = {-1, -1};
std::atomic<bool> installed{false};
std::atomic<int> requestedStatus{0};
std::atomic<bool> exitRequested{false};
std::atomic<bool> exitBegun{false};
void (*exitPreparation)() = nullptr;  // Touched by the main thread only.
QSocketNotifier* notifier = nullptr;  // Owned by this module, touched by the main thread only.

void handleRequest() {
    char request = 0;
    if (::read(requestPipe[0], &request, 1) != 1) {
        return;
    }
    if (request == EXIT_REQUEST) {
        exitBegun.store(true);
        prepareExit();
        std::exit(requestedStatus.load());  // NOLINT(concurrency-mt-unsafe): the main thread's.
    }
    QCoreApplication::quit();
}

void onStopSignal(int number) {
    const int savedErrno = errno;
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    // A full pipe already holds a request; after another error the default action applies.
    if (::write(requestPipe[1], &QUIT_REQUEST, 1) != 1 && errno != EAGAIN) {
        ::raise(number);  // GCOVR_EXCL_LINE: ends the process, and its counts with it
    }
    errno = savedErrno;
}

}  // namespace

void installMainLoopRequests() {
    assert(onMainThread() && QCoreApplication::instance() != nullptr && notifier == nullptr);
    if (::pipe2(requestPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        consolePerror("Stop signals will end the program at once: pipe2");
        return;
    }
    notifier = new QSocketNotifier(requestPipe[0], QSocketNotifier::Read);
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [] { handleRequest(); });
    installed.store(true);

    struct sigaction onStop = {};
    onStop.sa_handler = onStopSignal;
    onStop.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &onStop, nullptr);
    ::sigaction(SIGTERM, &onStop, nullptr);
}

void removeMainLoopRequests() {
    assert(onMainThread() && QCoreApplication::instance() != nullptr);
    delete notifier;
    notifier = nullptr;
}

bool requestMainThreadExit(int status) {
    assert(!onMainThread());
    if (!installed.load()) {
        return false;
    }
    requestedStatus.store(status);
    exitRequested.store(true);
    return ::write(requestPipe[1], &EXIT_REQUEST, 1) == 1;
}

void setExitPreparation(void (*preparation)()) {
    assert(onMainThread());
    exitPreparation = preparation;
}

void prepareExit() {
    assert(onMainThread());
    void (*const preparation)() = exitPreparation;
    exitPreparation = nullptr;
    if (preparation != nullptr) {
        preparation();
    }
}

bool mainThreadExitBegun() {
    return exitBegun.load();
}

int finalStatus(int loopResult) {
    assert(onMainThread());
    return exitRequested.load() ? requestedStatus.load() : loopResult;
}
