// The button's child process, with a shell that cannot be started. The child shares the test's
// memory until it ends, so the stand-in for execl() can note down what it sees.

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QPushButton>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

constexpr int HIGH_DESCRIPTOR = 256;

struct Seen {
    int calls;
    pid_t process;
    const char* path;
    const char* arguments[4];
    int lowestOpenDescriptor;
    int deathSignal;
} seen;

void noteArguments(const char* first, std::va_list rest) {
    const char* argument = first;
    for (const char*& place : seen.arguments) {
        place = argument;
        argument = argument != nullptr ? va_arg(rest, const char*) : nullptr;
    }
}

}  // namespace

extern "C" int execl(const char* path, const char* argument, ...) noexcept {
    ++seen.calls;
    seen.process = ::getpid();
    seen.path = path;
    std::va_list rest;
    va_start(rest, argument);
    noteArguments(argument, rest);
    va_end(rest);
    seen.lowestOpenDescriptor = 0;
    while (::fcntl(seen.lowestOpenDescriptor, F_GETFD) < 0 && seen.lowestOpenDescriptor < 1024) {
        ++seen.lowestOpenDescriptor;
    }
    ::prctl(PR_GET_PDEATHSIG, &seen.deathSignal);
    errno = ENOENT;
    return -1;
}

namespace {

class VolumeControl : public ::testing::Test {
  protected:
    void SetUp() override {
        seen = Seen{};
        ASSERT_EQ(::dup2(STDERR_FILENO, HIGH_DESCRIPTOR), HIGH_DESCRIPTOR);
        for (int descriptor = 3; descriptor < HIGH_DESCRIPTOR; ++descriptor) {
            if (::fcntl(descriptor, F_GETFD) < 0) {
                ::dup2(STDERR_FILENO, descriptor);
                opened.push_back(descriptor);
            }
        }
    }
    void TearDown() override {
        for (const int descriptor : opened) {
            ::close(descriptor);
        }
        ::close(HIGH_DESCRIPTOR);
    }

    std::vector<int> opened;
    VelantrixServer window{nullptr};
};

TEST_F(VolumeControl, ButtonRunsTheVolumeControlThroughTheShell) {
    window.findChild<QPushButton*>("pushButtonTest")->click();
    ASSERT_EQ(seen.calls, 1);
    EXPECT_NE(seen.process, ::getpid());
    EXPECT_STREQ(seen.path, "/bin/sh");
    EXPECT_STREQ(seen.arguments[0], "sh");
    EXPECT_STREQ(seen.arguments[1], "-c");
    EXPECT_STREQ(seen.arguments[2], "pavucontrol");
    EXPECT_EQ(seen.arguments[3], nullptr);
    ::waitpid(seen.process, nullptr, 0);
}

TEST_F(VolumeControl, ChildHasDescriptors0To255ClosedAndNoOther) {
    window.handlePAVButtonClicked();
    EXPECT_EQ(seen.lowestOpenDescriptor, HIGH_DESCRIPTOR);
    ::waitpid(seen.process, nullptr, 0);
    EXPECT_GE(::fcntl(STDERR_FILENO, F_GETFD), 0) << "the server's own must stay open";
}

TEST_F(VolumeControl, ChildIsToBeKilledWithTheServer) {
    window.handlePAVButtonClicked();
    EXPECT_EQ(seen.deathSignal, SIGKILL);
    ::waitpid(seen.process, nullptr, 0);
}

TEST_F(VolumeControl, MissingShellEndsTheChildWithStatus127) {
    window.handlePAVButtonClicked();
    int status = 0;
    ASSERT_EQ(::waitpid(seen.process, &status, 0), seen.process) << "nobody else may reap it";
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 127);
}

}  // namespace
