// Threads that report while the window is destroyed. The watchdog of the test run catches hangs.

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <random>
#include <vector>

#include <QLineEdit>
#include <portaudio.h>

#include "app/base/core_pin.h"
#include "gui/VelantrixServer.h"
#include "gui_test.h"
#include "tests/support/waiting.h"

namespace {

std::atomic<bool> holdClose{false};

}  // namespace

// Takes the place of the sound library's: closing takes as long as a test wants.
extern "C" PaError Pa_CloseStream(PaStream*) {
    while (holdClose.load()) {
        QThread::msleep(1);
    }
    return paBadStreamPtr;
}

namespace {

class WindowEnd : public ::testing::Test {
  protected:
    WindowEnd() { mainDialog.store(window.get()); }

    std::unique_ptr<VelantrixServer> window = std::make_unique<VelantrixServer>(nullptr);
};

/// Long enough for a worker to arrive in its report.
void letWorkersArrive() {
    QThread::msleep(100);
}

TEST_F(WindowEnd, StatusReportThatWaitsIsReleased) {
    const Worker worker([] {
        reportToCore([](VelantrixServerNoGUI& core) { core.SetClientStatus(1, "late", false); });
    });
    letWorkersArrive();
    EXPECT_FALSE(worker.done());
    window.reset();
    EXPECT_TRUE(spinUntil([&worker] { return worker.done(); }));
}

TEST_F(WindowEnd, MessageThatWaitsIsReleasedWithoutABox) {
    const BoxAnswerer answerer([](QMessageBox& box) { box.accept(); });
    const Worker worker(
        [] { reportToCore([](VelantrixServerNoGUI& core) { core.emitShowMessage("too late"); }); });
    letWorkersArrive();
    window.reset();
    EXPECT_TRUE(spinUntil([&worker] { return worker.done(); }));
    EXPECT_EQ(answerer.count(), 0);
}

TEST_F(WindowEnd, QuestionThatWaitsIsAnsweredWithZero) {
    const BoxAnswerer answerer([](QMessageBox& box) { box.accept(); });
    std::atomic<int> answer{-1};
    std::atomic<bool> pinned{false};
    const Worker worker([target = window.get(), &answer, &pinned] {
        const CorePin pin;
        pinned.store(true);
        answer.store(target->showQuestion(QMessageBox::Information, "t", "q", QMessageBox::Yes));
    });
    ASSERT_TRUE(waitUntil(pinned));  // Without an event loop: no report is answered yet.
    letWorkersArrive();
    window.reset();
    EXPECT_TRUE(spinUntil([&worker] { return worker.done(); }));
    EXPECT_EQ(answer.load(), 0);
    EXPECT_EQ(answerer.count(), 0);
}

TEST_F(WindowEnd, ReportsAfterTheEndGoToAPlainCore) {
    const auto* const old = static_cast<VelantrixServerNoGUI*>(window.get());
    window.reset();
    EXPECT_NE(mainDialog.load(), old);
    bool reported = false;
    reportToCore([&reported, old](VelantrixServerNoGUI& core) {
        EXPECT_NE(&core, old);
        core.SetClientStatus(1, "late", false);
        core.SetAudioCaptureActive();
        reported = true;
    });
    EXPECT_TRUE(reported);
}

// A thread that sleeps longer between its pin and its report than the window waits for it.
TEST_F(WindowEnd, ReportBegunAfterTheTimeoutIsReleasedByTheEndOfTheWindow) {
    std::atomic<bool> pinned{false};
    std::atomic<bool> reporting{false};
    const Worker worker([target = window.get(), &pinned, &reporting] {
        const CorePin pin;
        pinned.store(true);
        QThread::msleep(700);
        reporting.store(true);
        target->VelantrixServer::SetClientStatus(1, "very late", false);
    });
    ASSERT_TRUE(spinUntil([&pinned] { return pinned.load(); }));
    // The window waits for its sound until the report has certainly begun.
    holdClose.store(true);
    const Worker closer([&reporting] {
        while (!reporting.load()) {
            QThread::msleep(1);
        }
        QThread::msleep(300);
        holdClose.store(false);
    });
    window.reset();
    EXPECT_TRUE(spinUntil([&worker] { return worker.done(); }));
}

void reportUntil(const std::atomic<bool>& stop) {
    int count = 0;
    while (!stop.load()) {
        reportToCore([&count](VelantrixServerNoGUI& core) {
            core.SetAudioCaptureActive();
            core.SetClientStatus(++count % 3, "busy", false);
        });
    }
}

TEST(WindowEndAtRandom, BusyReportersAreNeverLeftBehind) {
    const unsigned seed = std::random_device{}();
    std::cout << "seed " << seed << std::endl;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> delay(0, 20000);
    std::atomic<bool> stop{false};
    std::unique_ptr<Worker> reporter;
    for (int round = 0; round < 20; ++round) {
        auto window = std::make_unique<VelantrixServer>(nullptr);
        mainDialog.store(window.get());
        if (reporter == nullptr) {
            reporter = std::make_unique<Worker>([&stop] { reportUntil(stop); });
        }
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::microseconds(delay(generator));
        while (std::chrono::steady_clock::now() < end) {
            QCoreApplication::processEvents();
        }
        window.reset();
    }
    stop.store(true);
    EXPECT_TRUE(spinUntil([&reporter] { return reporter->done(); }));
}

}  // namespace
