#include "app/base/process_exit.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>
#include <gtest/gtest.h>

#include "app/base/Thread.h"
#include "app/base/command_line.h"
#include "app/base/console.h"
#include "app/base/main_loop.h"
#include "tests/support/child_run.h"
#include "tests/support/held_line.h"

namespace {

constexpr int STATUS_OF_MINUS_ONE = 255;

/// An exit handler that prints its thread, on both outputs.
void atExit() {
    std::fputs(gettid() == getpid() ? "exit on main\n" : "exit on worker\n", stdout);
    std::fputs("torn down\n", stderr);
}

void startQuiet() {
    const char* argv[] = {"VelantrixServer"};
    scanArguments(1, argv);
    std::atexit(atExit);
}

void startVerbose() {
    const char* argv[] = {"VelantrixServer", "-verbose"};
    scanArguments(2, argv);
    std::atexit(atExit);
}

/// Runs `before` and then the event loop with the main loop's requests; returns the loop's result.
int runEventLoop(const std::function<void()>& before) {
    int argc = 1;
    char name[] = "VelantrixServer";
    char* argv[] = {name, nullptr};
    const QCoreApplication application(argc, argv);
    installMainLoopRequests();
    before();
    const int result = QCoreApplication::exec();
    removeMainLoopRequests();
    return result;
}

TEST(ExitProcessTest, MainThreadExitsAtOnceWithHandlersAndQuietStandardError) {
    const ChildRun run = runChild([] {
        startQuiet();
        std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
        std::fputs("before\n", stderr);
        ExitProcess(-1);
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.out, "exit on main\n");
    EXPECT_EQ(run.err, "before\n");
}

TEST(ExitProcessTest, PreparationComesBeforeTheHandlersOnTheMainThreadAndOnce) {
    const auto prepare = [] {
        std::fputs(gettid() == getpid() ? "prepared on main\n" : "prepared on worker\n", stdout);
    };
    const ChildRun asked = runChild([prepare] {
        startQuiet();
        setExitPreparation(prepare);
        runEventLoop([] { std::thread([] { ExitProcess(-1); }).detach(); });
    });
    EXPECT_EQ(asked.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(asked.out, "prepared on main\nexit on main\n");

    const ChildRun own = runChild([prepare] {
        startQuiet();
        setExitPreparation(prepare);
        prepareExit();
        ExitProcess(-1);
    });
    EXPECT_EQ(own.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(own.out, "prepared on main\nexit on main\n");
}

TEST(ExitProcessTest, VerboseLeavesStandardErrorOpen) {
    const ChildRun run = runChild([] {
        startVerbose();
        ExitProcess(-1);
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.err, "torn down\n");
}

TEST(ExitProcessTest, OtherStatusIsPassedOn) {
    EXPECT_EQ(runChild([] { ExitProcess(3); }).status, 3);
    EXPECT_EQ(runChild([] { ExitProcess(0); }).status, 0);
}

TEST(ExitProcessTest, WorkerWithoutAnEventLoopExitsItself) {
    const ChildRun run = runChild([] {
        startQuiet();
        std::thread([] { ExitProcess(-1); }).join();
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.out, "exit on worker\n");
    EXPECT_EQ(run.err, "");
}

TEST(ExitProcessTest, WorkerThatIsFasterThanTheEventLoopIsStillAnswered) {
    const ChildRun run = runChild([] {
        startQuiet();
        runEventLoop([] {
            std::thread([] { ExitProcess(-1); }).detach();
            Sleep(300);
        });
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.out, "exit on main\n");
}

TEST(ExitProcessTest, SlowExitOfTheMainThreadIsWaitedFor) {
    const ChildRun run = runChild([] {
        startQuiet();
        std::atexit([] { Sleep(3500); });  // Longer than a main thread may take to begin it.
        runEventLoop([] { std::thread([] { ExitProcess(-1); }).detach(); });
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.out, "exit on main\n");
}

TEST(ExitProcessTest, ExitThatHangsIsEnded) {
    const ChildRun run = runChild([] {
        std::atexit([] {
            const bool limited = alarm(1) > 0;  // Shortens the limit that was set.
            while (limited) {
                pause();
            }
            _exit(0);
        });
        ExitProcess(-1);
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
}

TEST(ExitProcessTest, TwoWorkersAtOnceGiveTheSameStatus) {
    const ChildRun run = runChild([] {
        startQuiet();
        runEventLoop([] {
            for (int i = 0; i < 2; ++i) {
                std::thread([] { ExitProcess(-1); }).detach();
            }
        });
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.out, "exit on main\n");
}

TEST(ExitProcessTest, MainThreadThatNeverAnswersIsNotWaitedForForLong) {
    const ChildRun run = runChild([] {
        startQuiet();
        runEventLoop([] {
            std::fputs("unflushed", stdout);
            std::thread([] { ExitProcess(-1); }).detach();
            Sleep(20000);
        });
    });
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
    EXPECT_EQ(run.out, "unflushed") << "flushed once, and no exit handler has run";
}

TEST(ExitProcessTest, WhatWasPrintedIsWrittenBeforeStandardErrorIsTurnedOff) {
    const ChildRun run = runChild([] {
        startQuiet();
        consoleStart();
        const HeldLine held(50);
        consoleError("queued\n");
        ExitProcess(-1);
    });
    EXPECT_EQ(run.out, "held\nexit on main\n");
    EXPECT_EQ(run.err, "queued\n");
    EXPECT_EQ(run.status, STATUS_OF_MINUS_ONE);
}

class StopSignal : public testing::TestWithParam<int> {};

TEST_P(StopSignal, EndsTheEventLoopWithResultZero) {
    const int number = GetParam();
    const ChildRun run = runChild([number] {
        const int result =
            runEventLoop([number] { QTimer::singleShot(20, [number] { std::raise(number); }); });
        consolePrintf("loop ended with %d\n", result);
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "loop ended with 0\n");
}

TEST_P(StopSignal, BeforeTheLoopRunsEndsItAsSoonAsItDoes) {
    const int number = GetParam();
    const ChildRun run = runChild([number] { runEventLoop([number] { std::raise(number); }); });
    EXPECT_EQ(run.status, 0);
}

TEST_P(StopSignal, SecondOneWhileShuttingDownEndsTheProcess) {
    const int number = GetParam();
    const ChildRun run = runChild([number] {
        runEventLoop([number] { QTimer::singleShot(20, [number] { std::raise(number); }); });
        std::raise(number);
        consolePuts("still here");
    });
    EXPECT_EQ(run.status, 1000 + number);
    EXPECT_EQ(run.out, "");
}

TEST_P(StopSignal, WithoutItsPipeItEndsTheProcess) {
    const int number = GetParam();
    const ChildRun run = runChild([number] {
        const int next = dup(STDIN_FILENO);
        close(next);
        runEventLoop([number, next] {
            // The pipe is among the first descriptors that were opened since.
            for (int descriptor = next; descriptor < next + 16; ++descriptor) {
                close(descriptor);
            }
            std::raise(number);
            consolePuts("still here");
        });
    });
    EXPECT_EQ(run.status, 1000 + number);
    EXPECT_EQ(run.out, "");
}

INSTANTIATE_TEST_SUITE_P(MainLoop, StopSignal, testing::Values(SIGINT, SIGTERM),
                         [](const auto& each) { return each.param == SIGINT ? "Int" : "Term"; });

}  // namespace
