// The program's start when the system has no more threads, descriptors or memory to give.

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <limits>
#include <new>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include <QCoreApplication>
#include <gtest/gtest.h>

#include "app/base/console.h"
#include "app/base/main_loop.h"
#include "app/base/out_of_memory.h"
#include "tests/support/call_faults.h"
#include "tests/support/child_run.h"
#include "tests/support/held_line.h"

namespace {

constexpr int FATAL = 255;
constexpr int ENDED_BY_SIGNAL = 1000;

template <class Thrown>
void throwOne(Thrown thrown) {
    throw thrown;
}

constexpr rlim_t ALL_DESCRIPTORS = 1024;

void limitDescriptors(rlim_t most) {
    const rlimit limit{most, ALL_DESCRIPTORS};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST(ScarceResources, ConsoleWithoutAThreadWritesByItself) {
    const ChildRun run = runChild([] {
        failCall(Call::PthreadCreate, 1, EAGAIN);
        consoleStart();
        const ConsoleDeferral deferral;
        consolePuts("a line of the capture thread");
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "a line of the capture thread\n");
    EXPECT_EQ(run.err, "Could not create console thread, err = " + std::to_string(EAGAIN) + "\n");
}

// A sanitizer's operator new asks no handler, so the build without one has this test; the checks
// run it from there as plain.scarce_resources.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(ScarceResources, NoMemoryForDispensableWorkIsThrownToItsOwner) {
    const ChildRun run = runChild([] {
        endWhenOutOfMemory();
        volatile std::size_t tooMuch = std::numeric_limits<std::ptrdiff_t>::max();
        {
            const ThrowWhenOutOfMemory throws;
            EXPECT_THROW(::operator delete(::operator new(tooMuch)), std::bad_alloc);
        }
        ::operator delete(::operator new(tooMuch));
    });
    EXPECT_EQ(run.status, FATAL);
    EXPECT_EQ(run.out, "VelantrixServer: not enough memory. Quitting.\n");
}
#endif

TEST(ScarceResources, NoMemoryThatALibraryThrowsEndsTheProgramWithALineAfterThoseBefore) {
    const ChildRun run = runChild([]() noexcept {
        consoleStart();
        endWhenOutOfMemory();
        const HeldLine held(50);
        throwOne(std::bad_alloc());
    });
    EXPECT_EQ(run.status, FATAL);
    EXPECT_EQ(run.out, "held\nVelantrixServer: not enough memory. Quitting.\n");
}

/// Makes standard output a full pipe that is not read.
void blockStandardOutput() {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string page(static_cast<std::size_t>(fcntl(ends[1], F_SETPIPE_SZ, 1)), 'x');
    ASSERT_EQ(write(ends[1], page.data(), page.size()), static_cast<ssize_t>(page.size()));
    ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
}

TEST(ScarceResources, NoMemoryEndsTheProgramAlsoWhenNobodyReadsTheLine) {
    const ChildRun run = runChild([]() noexcept {
        blockStandardOutput();
        endWhenOutOfMemory();
        throwOne(std::bad_alloc());
    });
    EXPECT_EQ(run.status, FATAL);
}

TEST(ScarceResources, OtherUncaughtExceptionStillAbortsWithTheUsualText) {
    const ChildRun run = runChild([]() noexcept {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        endWhenOutOfMemory();
        throwOne(1);
    });
    EXPECT_EQ(run.status, ENDED_BY_SIGNAL + SIGABRT);
    EXPECT_EQ(run.err, "terminate called after throwing an instance of 'int'\n");
}

TEST(ScarceResources, NoPipeForStopSignalsIsTold) {
    const ChildRun run = runChild([] {
        int argc = 1;
        char name[] = "server";
        char* argv[] = {name, nullptr};
        const QCoreApplication application(argc, argv);
        limitDescriptors(3);
        installMainLoopRequests();
        limitDescriptors(ALL_DESCRIPTORS);  // The sanitizer needs some to look at objects.
        std::thread([] { EXPECT_FALSE(requestMainThreadExit(0)); }).join();
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err.rfind("Stop signals will end the program at once: pipe2: ", 0), 0U)
        << run.err;
}

}  // namespace
