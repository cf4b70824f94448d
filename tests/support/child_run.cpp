#include "tests/support/child_run.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/call_faults.h"
#include "tests/support/waiting.h"

namespace {

constexpr std::chrono::seconds MAX_RUN{30};
constexpr std::chrono::seconds PRINT_TIMEOUT{5};
constexpr int FAILED_EXPECTATION = 99;
constexpr int SIGNAL_BASE = 1000;

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

std::string waitForText(int descriptor, const std::string& wanted) {
    waitUntil([&] { return readAll(descriptor).find(wanted) != std::string::npos; }, PRINT_TIMEOUT);
    return readAll(descriptor);
}

}  // namespace

// Read by the thread sanitizer, when there is one: the server's workers are never joined.
extern "C" const char* __tsan_default_options() {
    return "report_thread_leaks=0:die_after_fork=0";
}

std::string readAll(int descriptor) {
    std::string text;
    char piece[4096];
    const bool isFile = lseek(descriptor, 0, SEEK_CUR) >= 0;
    for (ssize_t got = 1; got > 0;) {
        got = isFile ? pread(descriptor, piece, sizeof piece, static_cast<off_t>(text.size()))
                     : read(descriptor, piece, sizeof piece);
        text.append(piece, static_cast<std::size_t>(got > 0 ? got : 0));
    }
    return text;
}

Child::Child(const std::function<void()>& body)
    : out_(memfd_create("stdout", MFD_CLOEXEC)), err_(memfd_create("stderr", MFD_CLOEXEC)) {
    std::fflush(nullptr);
    process_ = fork();
    if (process_ == 0) {
        runBody(body, out_, err_);
    }
}

Child::~Child() {
    if (process_ > 0) {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
    }
    close(out_);
    close(err_);
}

std::string Child::printed(const std::string& wanted) const {
    return waitForText(out_, wanted);
}

std::string Child::reported(const std::string& wanted) const {
    return waitForText(err_, wanted);
}

ChildRun Child::wait() {
    int status = 0;
    if (!waitUntil([&] { return waitpid(process_, &status, WNOHANG) != 0; }, MAX_RUN)) {
        ADD_FAILURE() << "the child process does not end";
        kill(process_, SIGKILL);
        waitpid(process_, &status, 0);
    }
    process_ = 0;
    ChildRun run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_BASE + WTERMSIG(status);
    run.out = readAll(out_);
    run.err = readAll(err_);
    EXPECT_NE(run.status, FAILED_EXPECTATION) << run.out << run.err;
    EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("runtime error"), std::string::npos) << run.err;
    return run;
}

ChildRun runChild(const std::function<void()>& body) {
    return Child(body).wait();
}

ScopedVariable::ScopedVariable(std::string variable, const char* value)
    : name_(std::move(variable)), wasSet_(std::getenv(name_.c_str()) != nullptr) {
    if (wasSet_) {
        before_ = std::getenv(name_.c_str());
    }
    if (value != nullptr) {
        setenv(name_.c_str(), value, 1);
    } else {
        unsetenv(name_.c_str());
    }
}

ScopedVariable::~ScopedVariable() {
    if (wasSet_) {
        setenv(name_.c_str(), before_.c_str(), 1);
    } else {
        unsetenv(name_.c_str());
    }
}

OutputTo::OutputTo(int descriptor) : saved_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    dup2(descriptor, STDOUT_FILENO);
}

OutputTo::~OutputTo() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}
