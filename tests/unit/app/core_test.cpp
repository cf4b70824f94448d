#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <new>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <gtest/gtest.h>

#include "app/base/Thread.h"
#include "app/base/VelantrixServerNoGUI.h"
#include "tests/support/call_faults.h"
#include "tests/support/child_run.h"
#include "tests/support/named_case.h"
#include "tests/support/waiting.h"
#include "tests/unit/app/fake_workers.h"
#include "tests/unit/app/sleep_watch.h"

/// Reaches the core's flags.
struct CoreTestAccess {
    static bool captureActive(const VelantrixServerNoGUI& core) { return core.audioCaptureActive; }
    static bool shutdownDone(const VelantrixServerNoGUI& core) { return core.audioShutdownDone; }
};

namespace {

using Calls = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

const char* const SLOW_SHUTDOWN =
    "VelantrixServer: Audio shutdown is taking a long time, may be caused by an audio driver "
    "issue. Quitting.\n";

/// Builds a core, calls `body` with it, and returns how long its destruction took.
Clock::duration destroyAfter(const std::function<void(VelantrixServerNoGUI&)>& body) {
    alignas(VelantrixServerNoGUI) static unsigned char room[sizeof(VelantrixServerNoGUI)];
    auto* const core = new (room) VelantrixServerNoGUI;
    if (body) {
        body(*core);
    }
    const auto start = Clock::now();
    core->~VelantrixServerNoGUI();
    return Clock::now() - start;
}

CHILD_TEST(Core, ConstructionStartsNothing) {
    static VelantrixServerNoGUI core;
    EXPECT_EQ(countOf(Call::PthreadCreate), 0);
    EXPECT_FALSE(CoreTestAccess::captureActive(core));
    EXPECT_FALSE(CoreTestAccess::shutdownDone(core));
    EXPECT_EQ(workerCalls(), Calls{});
}

TEST(CoreInit, PrintsTheBannerAndStartsThreeThreads) {
    const ChildRun run = runChild([] {
        static auto* const core = new VelantrixServerNoGUI;
        core->init();
        EXPECT_TRUE(waitForWorker("network") && waitForWorker("discovery") &&
                    waitForWorker("version check"));
        EXPECT_EQ(countOf(Call::PthreadCreate), 3);
        EXPECT_EQ(fakeWorkers().hostCore.load(), core);
    });
    EXPECT_EQ(run.out, "Velantrix Server v" VELANTRIX_VERSION "\n");
    EXPECT_EQ(run.status, 0);
}

CHILD_TEST(CoreInit, LoadsTheSettingsBeforeAnyThreadAndInitialisesHttpBeforeTheVersionCheck) {
    // Each worker runs to its record before the main thread continues: this fixes the order.
    static auto* const core = new VelantrixServerNoGUI;
    fakeWorkers().networkHost = [] { waitForWorker("http init"); };
    core->init();
    EXPECT_TRUE(waitForWorker("version check"));
    const Calls calls = workerCalls();
    EXPECT_EQ(calls.front(), "settings");
    const auto place = [&calls](const char* name) {
        return std::find(calls.begin(), calls.end(), name) - calls.begin();
    };
    EXPECT_LT(place("http init"), place("version check"));
}

/// Which of the three starts fails, and what comes of it.
struct StartFailure : NamedCase {
    int nth;
    const char* line;
    int status;
};

/// The record of a thread that does not start stays allocated by design: no leak.
void overlookRecords() {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable();
#endif
}

class FailedThreadStart : public testing::TestWithParam<StartFailure> {};

TEST_P(FailedThreadStart, IsReportedWithItsCode) {
    const StartFailure& failure = GetParam();
    const ChildRun run = runChild([&failure] {
        overlookRecords();
        failCall(Call::PthreadCreate, failure.nth, EAGAIN);
        static auto* const core = new VelantrixServerNoGUI;  // Its threads may outlive this block.
        core->init();
        EXPECT_EQ(countOf(Call::PthreadCreate), 3);
    });
    EXPECT_EQ(run.out, std::string("Velantrix Server v" VELANTRIX_VERSION "\n") + failure.line);
    EXPECT_EQ(run.status, failure.status);
}

INSTANTIATE_TEST_SUITE_P(
    CoreInit, FailedThreadStart,
    testing::Values(StartFailure{"Network", 1, "Could not create audio thread, err = 1011\n", 255},
                    StartFailure{"Discovery", 2,
                                 "Could not create multicast receive thread, err = 1011\n", 255},
                    StartFailure{"VersionCheckIsNotFatal", 3,
                                 "Could not create version check thread, err = 1011\n", 0}),
    CASE_NAME);

TEST(CoreReports, CaptureIsAnnouncedOncePerProcess) {
    const ChildRun run = runChild([] {
        for (int i = 0; i < 2; ++i) {
            auto* const core = new VelantrixServerNoGUI;
            EXPECT_FALSE(CoreTestAccess::captureActive(*core));
            for (int buffer = 0; buffer < 100; ++buffer) {
                core->SetAudioCaptureActive();
                EXPECT_TRUE(CoreTestAccess::captureActive(*core));
            }
        }
    });
    EXPECT_EQ(run.out, "VelantrixServer: Audio capture running\n");
}

TEST(CoreReports, MessagesArePrintedAsLines) {
    const ChildRun run = runChild([] {
        auto* const core = new VelantrixServerNoGUI;
        core->emitShowMessage("a %s message");
        core->emitShowMessage("with its own line end\n");
    });
    EXPECT_EQ(run.out, "a %s message\nwith its own line end\n\n");
}

TEST(CoreReports, ClientStatusHasNoVisibleEffect) {
    const ChildRun run = runChild([] {
        auto* const core = new VelantrixServerNoGUI;
        core->SetClientStatus(1, "", false);
        core->SetClientStatus(1, "a name", false);
        core->SetClientStatus(0, nullptr, false);
        core->SetClientStatus(0, nullptr, true);
    });
    EXPECT_EQ(run.out + run.err, "");
}

constexpr int TIMEOUT_CHECKS = 15;
constexpr int TIMEOUT_STEP_MS = 200;

/// Waits on the calling thread until the close has recorded its end.
void awaitShutdown(const VelantrixServerNoGUI& core) {
    waitUntil([&] { return CoreTestAccess::shutdownDone(core); });
    EXPECT_TRUE(CoreTestAccess::shutdownDone(core));
}

TEST(CoreShutdown, CloseThatIsDoneBeforeTheFirstCheckIsNotSleptFor) {
    const ChildRun run = runChild([] {
        destroyAfter([](VelantrixServerNoGUI& core) {
            afterThreadCreation() = [&core] { awaitShutdown(core); };
        });
        EXPECT_EQ(workerCalls(), Calls{"close"});
        EXPECT_EQ(countOf(Call::PthreadCreate), 1);
        EXPECT_EQ(sleepsOf(TIMEOUT_STEP_MS), 0);
    });
    EXPECT_EQ(run.out, "");
}

/// Destroys a core whose close ends during the `nth` sleep between two checks; returns how many of
/// these sleeps there were.
int sleepsUntilCloseDuring(int nth) {
    static std::atomic<bool> release{false};
    fakeWorkers().closeCapture = [] {
        while (!release.load()) {
            usleep(1000);
        }
    };
    destroyAfter([nth](VelantrixServerNoGUI& core) {
        duringSleep() = [nth, &core](int milliseconds) {
            if (milliseconds == TIMEOUT_STEP_MS && sleepsOf(TIMEOUT_STEP_MS) == nth) {
                release.store(true);
                awaitShutdown(core);
            }
        };
    });
    return sleepsOf(TIMEOUT_STEP_MS);
}

TEST(CoreShutdown, CloseThatEndsDuringTheFourteenthSleepIsInTime) {
    const ChildRun run =
        runChild([] { EXPECT_EQ(sleepsUntilCloseDuring(TIMEOUT_CHECKS - 1), TIMEOUT_CHECKS - 1); });
    EXPECT_EQ(run.out, "");
}

TEST(CoreShutdown, CloseThatEndsDuringTheFifteenthSleepStillCountsAsLate) {
    const ChildRun run =
        runChild([] { EXPECT_EQ(sleepsUntilCloseDuring(TIMEOUT_CHECKS), TIMEOUT_CHECKS); });
    EXPECT_EQ(run.out, SLOW_SHUTDOWN);
}

TEST(CoreShutdown, CloseThatFailsCountsAsDone) {
    const ChildRun run = runChild([] {
        fakeWorkers().closeResult = -9986;
        destroyAfter(nullptr);
    });
    EXPECT_EQ(run.out, "");
}

TEST(CoreShutdown, CloseThatReturnsAfterTheObjectWentTouchesNothing) {
    // The object's room is filled with a pattern that a late write would change.
    const ChildRun run = runChild([] {
        static std::atomic<bool> release{false};
        static std::atomic<bool> returned{false};
        fakeWorkers().closeCapture = [] {
            while (!release.load()) {
                usleep(1000);
            }
            returned.store(true);
        };
        static unsigned char* room = nullptr;
        destroyAfter(
            [](VelantrixServerNoGUI& core) { room = reinterpret_cast<unsigned char*>(&core); });
        std::fill_n(room, sizeof(VelantrixServerNoGUI), static_cast<unsigned char>(0xA5));
        release.store(true);
        while (!returned.load()) {
            usleep(1000);
        }
        usleep(100000);
        for (std::size_t i = 0; i < sizeof(VelantrixServerNoGUI); ++i) {
            ASSERT_EQ(room[i], 0xA5) << "byte " << i;
        }
    });
    EXPECT_EQ(run.out, SLOW_SHUTDOWN);
}

TEST(CoreShutdown, FailedStartOfTheShutdownThreadIsReportedAndNotWaitedFor) {
    const ChildRun run = runChild([] {
        failCall(Call::PthreadCreate, 1, EAGAIN);
        EXPECT_LT(destroyAfter(nullptr), std::chrono::milliseconds(2500));
        EXPECT_EQ(workerCalls(), Calls{});
    });
    EXPECT_EQ(run.out, "Could not create audio shutdown thread, err = 1011\n");
    EXPECT_EQ(run.status, 0);
}

CHILD_TEST(CoreShutdown, LeavesTheWorkersRunning) {
    static std::atomic<int> ticks{0};
    fakeWorkers().networkHost = [] {
        for (;;) {
            ++ticks;
            usleep(1000);
        }
    };
    destroyAfter([](VelantrixServerNoGUI& core) {
        core.init();
        EXPECT_TRUE(waitForWorker("network"));
    });
    const int before = ticks;
    waitUntil([&] { return ticks != before; });
    EXPECT_GT(ticks, before);
}

}  // namespace
