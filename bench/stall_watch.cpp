// Records when the machine stood still: one thread per processor sleeps a millisecond at a time and
// writes a line when it wakes up late. What was late in the server at the same time was not the
// server's fault.
//
// Usage: stall_watch OUTPUT     Ends when its standard input is closed.
// Lines: processor, when it should have woken and when it did (CLOCK_MONOTONIC, nanoseconds).
//
// The threads have real-time priority where that is allowed, so late means that not even they got
// the processor. Otherwise they have ordinary priority, like the capture thread, and also see the
// load of other programs.

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::int64_t NS_PER_SECOND = 1000000000;
constexpr std::int64_t STEP_NS = 1000000;
constexpr std::int64_t LATE_NS = 200000;

std::atomic<bool> stopRequested{false};

std::int64_t nowNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

void stayOn(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(processor), &set);
    ::pthread_setaffinity_np(::pthread_self(), sizeof set, &set);
    ::prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0);
    sched_param first = {};
    first.sched_priority = 2;  // A measured server may have 1.
    if (::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &first) != 0) {
        std::fputs("stall_watch: ordinary priority only: other programs count as stalls\n", stderr);
    }
}

void watch(int processor, std::FILE* output) {
    stayOn(processor);
    std::int64_t due = nowNs();
    while (!stopRequested.load(std::memory_order_relaxed)) {
        due += STEP_NS;
        const timespec at = {due / NS_PER_SECOND, due % NS_PER_SECOND};
        while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
        }
        const std::int64_t woke = nowNs();
        if (woke - due > LATE_NS) {
            std::fprintf(output, "%d %" PRId64 " %" PRId64 "\n", processor, due, woke);
            due = woke;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::FILE* const output = argc == 2 ? std::fopen(argv[1], "we") : nullptr;
    if (output == nullptr) {
        std::fputs("usage: stall_watch OUTPUT\n", stderr);
        return 2;
    }
    std::setvbuf(output, nullptr, _IOLBF, BUFSIZ);
    std::vector<std::thread> threads;
    for (int processor = 0; processor < static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN));
         ++processor) {
        threads.emplace_back(watch, processor, output);
    }
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    stopRequested.store(true);
    for (std::thread& thread : threads) {
        thread.join();
    }
    return std::fclose(output) == 0 ? 0 : 1;
}
