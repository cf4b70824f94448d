#include "app/base/console.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <unistd.h>

#include <climits>

namespace {

constexpr std::size_t DEFERRED_LINE_ROOM = 256;
constexpr unsigned DEFERRED_LINES = 256;
constexpr int READER_PATIENCE_MS = 1000;

struct DeferredLine {
    std::size_t length = 0;
    char text[DEFERRED_LINE_ROOM] = {};
};

// Single producer (the thread that holds a ConsoleDeferral), single consumer (the writing
// thread). Everything here has a trivial destructor: both may still run while the process exits.
std::array<DeferredLine, DEFERRED_LINES> lines;
std::atomic<unsigned> produced{0};
std::atomic<unsigned> consumed{0};
std::atomic<unsigned> lost{0};
sem_t wakeUp;

std::atomic<bool> writerRuns{false};
std::atomic<bool> readerStalled{false};
std::atomic_flag writing = ATOMIC_FLAG_INIT;
thread_local bool deferring = false;

void writeAll(const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(STDOUT_FILENO, text, length);
        if (written > 0) {
            text += written;
            length -= static_cast<std::size_t>(written);
        } else if (written < 0 && errno == EAGAIN) {
            pollfd ready{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&ready, 1, READER_PATIENCE_MS);
        } else if (written == 0 || errno != EINTR) {
            return;  // Closed, full disc: the line is gone, the program is not.
        }
    }
}

/// Takes the turn to write. While one thread has it no other one fills the pipe, so what poll says
/// holds for the write that follows. Polled, because a wait with a limit is wanted.
bool takeTurn(int milliseconds) {
    while (writing.test_and_set(std::memory_order_acquire)) {
        if (milliseconds-- <= 0) {
            return false;
        }
        ::usleep(1000);
    }
    return true;
}

void passTurn() {
    writing.clear(std::memory_order_release);
}

/// Writes while the pipe has room, waiting for it at most `patience` milliseconds each time.
bool writeInPieces(const char* text, std::size_t length, int patience) {
    while (length > 0) {
        pollfd ready{STDOUT_FILENO, POLLOUT, 0};
        if (::poll(&ready, 1, patience) == 0) {
            return false;
        }
        const std::size_t piece = std::min<std::size_t>(length, PIPE_BUF);
        writeAll(text, piece);
        text += piece;
        length -= piece;
    }
    return true;
}

/// Writes from an ordinary thread: patient once, then not at all until the reader is back.
void writeWhileRead(const char* text, std::size_t length) {
    const int patience = readerStalled.load(std::memory_order_relaxed) ? 0 : READER_PATIENCE_MS;
    bool complete = false;
    if (takeTurn(patience)) {
        complete = writeInPieces(text, length, patience);
        passTurn();
    }
    readerStalled.store(!complete, std::memory_order_relaxed);
    if (!complete) {
        lost.fetch_add(1, std::memory_order_relaxed);
    }
}

/// Writes from the writing thread, which may wait for ever.
void writePatiently(const char* text, std::size_t length) {
    while (!takeTurn(READER_PATIENCE_MS)) {
    }
    writeAll(text, length);
    passTurn();
}

void defer(const char* format, std::va_list arguments) {
    const unsigned head = produced.load(std::memory_order_relaxed);
    if (head - consumed.load(std::memory_order_acquire) == DEFERRED_LINES) {
        lost.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    DeferredLine& line = lines[head % DEFERRED_LINES];
    const int wanted = std::vsnprintf(line.text, sizeof line.text, format, arguments);
    if (wanted < 0) {
        return;
    }
    line.length = static_cast<std::size_t>(wanted);
    if (line.length >= sizeof line.text) {
        line.length = sizeof line.text - 1;
        line.text[line.length - 1] = '\n';
    }
    produced.store(head + 1, std::memory_order_release);
    ::sem_post(&wakeUp);
}

void writeNow(const char* format, std::va_list arguments) {
    char room[1024];
    std::va_list again;
    va_copy(again, arguments);
    const int wanted = std::vsnprintf(room, sizeof room, format, arguments);
    if (wanted >= static_cast<int>(sizeof room)) {
        std::string text(static_cast<std::size_t>(wanted) + 1, '\0');
        std::vsnprintf(text.data(), text.size(), format, again);
        writeWhileRead(text.data(), static_cast<std::size_t>(wanted));
    } else if (wanted > 0) {
        writeWhileRead(room, static_cast<std::size_t>(wanted));
    }
    va_end(again);
}

void reportLostLines() {
    const unsigned count = lost.exchange(0, std::memory_order_relaxed);
    if (count > 0) {
        char text[96];
        const int length = std::snprintf(
            text, sizeof text, "(%u lines lost: standard output was not read in time)\n", count);
        writePatiently(text, static_cast<std::size_t>(length));
    }
}

void* runWriter(void* /*unused*/) {
    for (;;) {
        while (::sem_wait(&wakeUp) != 0) {
        }
        unsigned tail = consumed.load(std::memory_order_relaxed);
        while (tail != produced.load(std::memory_order_acquire)) {
            const DeferredLine& line = lines[tail % DEFERRED_LINES];
            writePatiently(line.text, line.length);
            consumed.store(++tail, std::memory_order_release);
        }
        reportLostLines();
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

}  // namespace

void consoleStart() {
    openMissingDescriptors();
    // A handler, not SIG_IGN: programs that we start get the default action back.
    struct sigaction onBrokenPipe = {};
    onBrokenPipe.sa_handler = ignoreSignal;
    onBrokenPipe.sa_flags = SA_RESTART;
    ::sigaction(SIGPIPE, &onBrokenPipe, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    ::sem_init(&wakeUp, 0, 0);
    pthread_t writer = 0;
    const int error = ::pthread_create(&writer, nullptr, runWriter, nullptr);
    if (error != 0) {
        std::fprintf(stderr, "Could not create console thread, err = %d\n", error);
        return;
    }
    ::pthread_detach(writer);
    writerRuns.store(true, std::memory_order_release);
}

void consolePrintf(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    if (deferring && writerRuns.load(std::memory_order_acquire)) {
        defer(format, arguments);
    } else {
        writeNow(format, arguments);
    }
    va_end(arguments);
}

void consolePuts(const char* text) {
    consolePrintf("%s\n", text);
}

void consoleDrain(int milliseconds) {
    for (int waited = 0;
         waited < milliseconds && writerRuns.load(std::memory_order_acquire) &&
         consumed.load(std::memory_order_acquire) != produced.load(std::memory_order_acquire);
         ++waited) {
        ::usleep(1000);
    }
}

ConsoleDeferral::ConsoleDeferral() {
    deferring = true;
}

ConsoleDeferral::~ConsoleDeferral() {
    deferring = false;
}
