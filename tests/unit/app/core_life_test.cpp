#include "app/core_life.h"

#include <atomic>
#include <memory>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/base/Thread.h"
#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/core_pin.h"
#include "tests/support/child_run.h"
#include "tests/support/waiting.h"
#include "tests/unit/app/fake_workers.h"
#include "tests/unit/app/sleep_watch.h"

namespace {

// Everything that a report uses is static: the object may be gone when it continues.
std::atomic<bool> insideReport{false};
std::atomic<bool> releaseReport{false};
std::atomic<int> frontEndReports{0};

/// A front end as the window is one: derived, and closing the core first when it is destroyed.
class FrontEnd : public VelantrixServerNoGUI {
  public:
    explicit FrontEnd(void (*serve)(void*) = nullptr) : serveReports(serve) {}
    ~FrontEnd() override { closeCore(serveReports, nullptr); }

    void SetClientStatus(int /*count*/, const char* /*name*/, bool /*direct*/) override {
        ++frontEndReports;
        insideReport.store(true);
        while (!releaseReport.load()) {
            usleep(1000);
        }
    }
    void emitShowMessage(const char* /*message*/) override { ++frontEndReports; }

  private:
    void (*serveReports)(void*);
};

void reportStatus() {
    reportToCore([](VelantrixServerNoGUI& core) { core.SetClientStatus(1, "", false); });
}

void reportActivity() {
    reportToCore([](VelantrixServerNoGUI& core) { core.SetAudioCaptureActive(); });
}

void reportMessage(const char* text) {
    reportToCore([text](VelantrixServerNoGUI& core) { core.emitShowMessage(text); });
}

TEST(CoreLife, CaptureThreadHeldInsideAReportUntilTheCoreIsGoneTouchesNothing) {
    const ChildRun run = runChild([] {
        auto core = std::make_unique<FrontEnd>();
        mainDialog.store(core.get());
        static std::atomic<bool> left{false};
        std::thread capture([] {
            reportStatus();
            // Late reports of the same thread, as of the next capture block.
            reportMessage("late");
            reportStatus();
            reportActivity();
            left.store(true);
        });
        EXPECT_TRUE(waitUntil(insideReport));
        core.reset();
        EXPECT_FALSE(left.load()) << "the report was not held";
        releaseReport.store(true);
        capture.join();
        EXPECT_EQ(frontEndReports, 1) << "a late report reached the destroyed front end";
    });
    EXPECT_EQ(run.out, "late\nVelantrixServer: Audio capture running\n");
}

constexpr int PIN_TIMEOUT_STEPS = 500;
constexpr int PIN_STEP_MS = 1;

/// Closes a core while a thread holds a pin, which it releases within the `nth` step of the wait.
/// Returns how many steps were waited.
int stepsUntilPinIsReleasedDuring(int nth) {
    const VelantrixServerNoGUI core;
    static std::atomic<bool> pinned{false};
    static std::atomic<bool> release{false};
    std::thread worker([] {
        const CorePin pin;
        pinned.store(true);
        EXPECT_TRUE(waitUntil(release));
    });
    EXPECT_TRUE(waitUntil(pinned));
    duringSleep() = [nth, &worker](int milliseconds) {
        if (milliseconds == PIN_STEP_MS && sleepsOf(PIN_STEP_MS) == nth) {
            release.store(true);
            worker.join();
        }
    };
    closeCore(nullptr, nullptr);
    duringSleep() = nullptr;
    const int steps = sleepsOf(PIN_STEP_MS);
    release.store(true);
    if (worker.joinable()) {
        worker.join();
    }
    return steps;
}

TEST(CoreLife, ThreadThatUsesTheCoreIsWaitedForUntilItHasDone) {
    runChild([] { EXPECT_EQ(stepsUntilPinIsReleasedDuring(200), 200); });
}

CHILD_TEST(CoreLife, ThreadThatUsesTheCoreForLongIsWaitedForHalfASecond) {
    EXPECT_EQ(stepsUntilPinIsReleasedDuring(PIN_TIMEOUT_STEPS + 1), PIN_TIMEOUT_STEPS);
}

CHILD_TEST(CoreLife, StagesFollowTheDestruction) {
    static CoreStage duringClose = CoreStage::Destroyed;
    auto core = std::make_unique<FrontEnd>();
    fakeWorkers().closeCapture = [] { duringClose = CorePin().stage(); };
    {
        const CorePin pin;
        EXPECT_EQ(pin.stage(), CoreStage::Alive);
        EXPECT_TRUE(static_cast<bool>(pin));
    }
    core.reset();
    EXPECT_EQ(duringClose, CoreStage::Closing);
    const CorePin pin;
    EXPECT_EQ(pin.stage(), CoreStage::Destroyed);
    EXPECT_FALSE(static_cast<bool>(pin));
}

CHILD_TEST(CoreLife, CallThatGaveItsPinUpIsNotWaitedForAndLearnsOfTheEnd) {
    auto core = std::make_unique<FrontEnd>();
    const CallPin call;
    EXPECT_TRUE(static_cast<bool>(call));
    EXPECT_TRUE(CorePin::anyHeld());
    CallPin::release();
    EXPECT_FALSE(CorePin::anyHeld());
    core.reset();
    EXPECT_FALSE(static_cast<bool>(CorePin()));
}

CHILD_TEST(CoreLife, CallThatKeepsItsPinGivesItUpInTheEnd) {
    const auto core = std::make_unique<FrontEnd>();
    { const CallPin call; }
    EXPECT_FALSE(CorePin::anyHeld());
}

CHILD_TEST(CoreLife, ReportsAreServedWhileAThreadUsesTheCore) {
    const VelantrixServerNoGUI core;
    const CallPin pin;
    int served = 0;
    closeCore(
        [](void* count) {
            ++*static_cast<int*>(count);
            CallPin::release();
        },
        &served);
    EXPECT_EQ(served, 1);
}

TEST(CoreLife, ReportsBeforeThereIsATargetAreDropped) {
    const ChildRun run = runChild([] {
        reportMessage("to nobody");
        reportStatus();
    });
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.status, 0);
}

TEST(CoreLife, NetworkThreadThatStartsAfterTheEndKeepsTheEverlastingCore) {
    const ChildRun run = runChild([] {
        static std::atomic<bool> reported{false};
        fakeWorkers().networkHost = [] {
            reportMessage("busy port");
            reported.store(true);
        };
        auto* const core = new FrontEnd;
        core->init();
        EXPECT_TRUE(waitUntil(reported));
        EXPECT_EQ(frontEndReports, 1);
        delete core;
        reportMessage("after the end");
        EXPECT_EQ(frontEndReports, 1);
    });
    EXPECT_EQ(run.out, "Velantrix Server v" VELANTRIX_VERSION "\nafter the end\n");
}

}  // namespace
