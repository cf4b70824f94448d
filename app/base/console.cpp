#include "app/base/console.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include "common/thread_check.h"

namespace {

constexpr std::size_t LINE_ROOM = 256;
constexpr unsigned QUEUE_LINES = 512;  // A power of two: the counts of lines wrap.
constexpr unsigned UNRESERVED_LINES = QUEUE_LINES / 2;
constexpr useconds_t FULL_PIPE_PAUSE_US = 10000;

struct Line {
    std::atomic<bool> complete{false};
    int descriptor = 0;
    std::size_t length = 0;
    char* longText = nullptr;  ///< Owned; used instead of `text` when the line is longer.
    char text[LINE_ROOM] = {};
};

// A ring. A thread that prints takes the next line, fills it and marks it complete; the writing
// thread writes complete lines in order and frees them. A thread that stops between the two delays
// the writing but not other threads. Everything here has a trivial destructor: it is used until the
// process ends.
std::array<Line, QUEUE_LINES> lines;
std::atomic<unsigned> taken{0};
std::atomic<unsigned> written{0};
std::atomic<unsigned> lost{0};
sem_t wakeUp;

std::atomic<bool> writerRuns{false};
thread_local bool deferring = false;

/// Null when the part of the queue that the thread may use is full.
Line* takeLine() {
    const auto room = static_cast<int>(deferring ? QUEUE_LINES : UNRESERVED_LINES);
    unsigned next = taken.load(std::memory_order_relaxed);
    do {
        // Negative when other threads have taken and written lines meanwhile; then the exchange
        // fails.
        if (static_cast<int>(next - written.load(std::memory_order_acquire)) >= room) {
            return nullptr;
        }
    } while (!taken.compare_exchange_weak(next, next + 1, std::memory_order_relaxed));
    return &lines[next % QUEUE_LINES];
}

void fill(Line& line, int descriptor, const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int wanted = std::vsnprintf(line.text, sizeof line.text, format, arguments);
    line.descriptor = descriptor;
    line.length = static_cast<std::size_t>(std::max(wanted, 0));
    if (line.length >= sizeof line.text &&
        (deferring || ::vasprintf(&line.longText, format, again) < 0)) {
        line.longText = nullptr;
        line.length = sizeof line.text - 1;
        line.text[line.length - 1] = '\n';
    }
    va_end(again);
}

void writeAll(int descriptor, const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t count = ::write(descriptor, text, length);
        if (count > 0) {
            text += count;
            length -= static_cast<std::size_t>(count);
        } else if (count < 0 && errno == EAGAIN) {
            ::usleep(FULL_PIPE_PAUSE_US);  // Not poll: it counts a terminal's last byte as room.
        } else if (count == 0 || errno != EINTR) {
            return;  // Closed, or the disk is full: drop the line.
        }
    }
}

void writeLine(Line& line) {
    writeAll(line.descriptor, line.longText != nullptr ? line.longText : line.text, line.length);
    std::free(line.longText);
    line.longText = nullptr;
}

void print(int descriptor, const char* format, std::va_list arguments) {
    if (!writerRuns.load(std::memory_order_acquire)) {
        Line line;
        fill(line, descriptor, format, arguments);
        writeLine(line);
        return;
    }
    if (Line* const line = takeLine(); line != nullptr) {
        fill(*line, descriptor, format, arguments);
        line->complete.store(true, std::memory_order_release);
    } else {
        lost.fetch_add(1, std::memory_order_relaxed);
    }
    ::sem_post(&wakeUp);
}

void reportLostLines() {
    const unsigned count = lost.load(std::memory_order_relaxed);
    if (count > 0) {
        char text[96];
        const int length = std::snprintf(
            text, sizeof text, "(%u lines lost: standard output was not read in time)\n", count);
        writeAll(STDOUT_FILENO, text, static_cast<std::size_t>(length));
        lost.fetch_sub(count, std::memory_order_release);
    }
}

void* runWriter(void* /*unused*/) {
    for (unsigned next = 0;;) {
        while (::sem_wait(&wakeUp) != 0) {
        }
        const unsigned end = next + QUEUE_LINES;
        while (next != end && lines[next % QUEUE_LINES].complete.load(std::memory_order_acquire)) {
            Line& line = lines[next % QUEUE_LINES];
            writeLine(line);
            line.complete.store(false, std::memory_order_relaxed);
            written.store(++next, std::memory_order_release);
        }
        // After the lines printed before the loss, but without waiting for all later ones.
        if (next == end || next == taken.load(std::memory_order_relaxed)) {
            reportLostLines();
        }
    }
}

void openMissingDescriptors() {
    int descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = ::dup(descriptor);
    }
    if (descriptor > STDERR_FILENO) {
        ::close(descriptor);
    }
}

void ignoreSignal(int) {}

/// Writes what was printed before an abort, which may give the reason.
void abortLater(int) {
    consoleDrain();
    ::raise(SIGABRT);
}

// Handlers, not SIG_IGN: in programs that we start the default action applies again.
void handleSignal(int number, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigaction(number, &action, nullptr);
}

}  // namespace

void consoleStart() {
    assert(onMainThread() && !writerRuns);
    openMissingDescriptors();
    handleSignal(SIGPIPE, ignoreSignal, SA_RESTART);
    handleSignal(SIGABRT, abortLater, static_cast<int>(SA_RESETHAND));
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    ::sem_init(&wakeUp, 0, 0);
    pthread_t writer = 0;
    const int error = ::pthread_create(&writer, nullptr, runWriter, nullptr);
    if (error != 0) {
        consoleError("Could not create console thread, err = %d\n", error);
        return;
    }
    ::pthread_detach(writer);
    writerRuns.store(true, std::memory_order_release);
    // Registered first, so called last.
    static_cast<void>(std::atexit([] { consoleDrain(); }));
}

void consolePrintf(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    print(STDOUT_FILENO, format, arguments);
    va_end(arguments);
}

void consolePuts(const char* text) {
    consolePrintf("%s\n", text);
}

void consoleError(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    print(STDERR_FILENO, format, arguments);
    va_end(arguments);
}

void consolePerror(const char* text) {
    char room[128];
    consoleError("%s: %s\n", text, ::strerror_r(errno, room, sizeof room));
}

void consoleDrain(int milliseconds) {
    const unsigned goal = taken.load(std::memory_order_relaxed);
    while ((static_cast<int>(goal - written.load(std::memory_order_acquire)) > 0 ||
            lost.load(std::memory_order_acquire) > 0) &&
           milliseconds-- > 0) {
        ::usleep(1000);
    }
}

ConsoleDeferral::ConsoleDeferral() {
    assert(!deferring);
    deferring = true;
}

ConsoleDeferral::~ConsoleDeferral() {
    deferring = false;
}
