// Keeps gcov's counts of processes that do not end through exit(). Linked into every program of a
// coverage build, before the libraries.

#include <array>
#include <csignal>
#include <cstdarg>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {

void __gcov_dump();
void __gcov_reset();
void _exit(int status);
void abort();
int __gcov_execl(const char* path, char* argument, ...);
}

namespace {

/// Tests send this instead of SIGKILL; the process then ends as if by SIGKILL.
constexpr int WRITE_COUNTS_AND_DIE = 60;

/// Opens files although a test has left no descriptor for them. Resets the counts: after vfork the
/// parent continues with this memory.
void writeCounts() {
    rlimit before = {};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit enough = {before.rlim_max, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &enough);
    __gcov_dump();
    __gcov_reset();
    ::setrlimit(RLIMIT_NOFILE, &before);
}

void writeCountsAndDie(int /*signal*/) {
    writeCounts();
    ::kill(::getpid(), SIGKILL);
}

[[gnu::constructor]] void installHandler() {
    struct sigaction action = {};
    action.sa_handler = writeCountsAndDie;
    ::sigaction(WRITE_COUNTS_AND_DIE, &action, nullptr);
}

}  // namespace

void _exit(int status) {
    writeCounts();
    for (;;) {
        ::syscall(SYS_exit_group, status);
    }
}

void abort() {
    writeCounts();
    ::raise(SIGABRT);  // A handler comes first, as with the library's.
    ::signal(SIGABRT, SIG_DFL);
    ::raise(SIGABRT);
    ::_exit(127);
}

/// The compiler calls it for execl. The library's own function marks the counts as written, also in
/// a parent that shares its memory.
int __gcov_execl(const char* path, char* argument, ...) {
    constexpr std::size_t ROOM = 64;
    std::array<char*, ROOM> words{argument};
    std::va_list more;
    va_start(more, argument);
    for (std::size_t i = 1; i < ROOM - 1 && words[i - 1] != nullptr; ++i) {
        words[i] = va_arg(more, char*);
    }
    va_end(more);
    writeCounts();
    return ::execv(path, words.data());
}
