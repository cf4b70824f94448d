#include "tests/support/child_run.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/call_faults.h"

namespace {

constexpr int PATIENCE_MS = 30000;
constexpr int FAILED_EXPECTATION = 99;
constexpr int SIGNAL_BASE = 1000;

std::string contentsOf(int descriptor) {
    std::string text;
    char piece[4096];
    lseek(descriptor, 0, SEEK_SET);
    for (ssize_t got = 0; (got = read(descriptor, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(got));
    }
    close(descriptor);
    return text;
}

[[noreturn]] void runBody(const std::function<void()>& body, int out, int err) {
    // gtest reports failed expectations on standard output; they show with the child's output.
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close(out);
    close(err);
    resetCalls();
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? FAILED_EXPECTATION : 0);
}

int waitFor(pid_t child) {
    int status = 0;
    for (int waited = 0; waitpid(child, &status, WNOHANG) == 0; ++waited) {
        if (waited == PATIENCE_MS) {
            ADD_FAILURE() << "the child process does not end";
            kill(child, SIGKILL);
        }
        usleep(1000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_BASE + WTERMSIG(status);
}

}  // namespace

// Read by the thread sanitizer, when there is one: the server's workers are never joined.
extern "C" const char* __tsan_default_options() {
    return "report_thread_leaks=0:die_after_fork=0";
}

ChildRun runChild(const std::function<void()>& body) {
    const int out = memfd_create("stdout", 0);
    const int err = memfd_create("stderr", 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        runBody(body, out, err);
    }
    ChildRun run;
    run.status = waitFor(child);
    run.out = contentsOf(out);
    run.err = contentsOf(err);
    EXPECT_NE(run.status, FAILED_EXPECTATION) << run.out << run.err;
    EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("runtime error"), std::string::npos) << run.err;
    return run;
}

ScopedVariable::ScopedVariable(std::string variable, const char* value)
    : name(std::move(variable)), wasSet(std::getenv(name.c_str()) != nullptr) {
    if (wasSet) {
        before = std::getenv(name.c_str());
    }
    if (value != nullptr) {
        setenv(name.c_str(), value, 1);
    } else {
        unsetenv(name.c_str());
    }
}

ScopedVariable::~ScopedVariable() {
    if (wasSet) {
        setenv(name.c_str(), before.c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
}
