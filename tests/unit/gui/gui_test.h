#pragma once

// What the tests of the window share: waiting, a way to answer boxes, and fresh processes.

#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>
#include <utility>

#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QThread>
#include <QTimer>
#include <gtest/gtest.h>

/// What comes at once on an idle machine may take this long before a test fails.
constexpr int TIMEOUT_MS = 20000;

/// Runs the event loop until `condition` holds; false when it does not in time.
inline bool spinUntil(const std::function<bool()>& condition) {
    QElapsedTimer clock;
    clock.start();
    while (!condition() && clock.elapsed() < TIMEOUT_MS) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return condition();
}

/// Calls `answer` for every box that opens while it lives, from within the box's own loop. The
/// answer must close the box.
class BoxAnswerer {
  public:
    explicit BoxAnswerer(std::function<void(QMessageBox&)> onBox) : answer(std::move(onBox)) {
        QObject::connect(&poll, &QTimer::timeout, &poll, [this] { look(); });
        poll.start(5);
    }

    [[nodiscard]] int count() const { return boxes; }

  private:
    void look() {
        auto* const box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box != nullptr && box->isVisible()) {
            ++boxes;
            answer(*box);
        }
    }

    QTimer poll;
    std::function<void(QMessageBox&)> answer;
    int boxes = 0;
};

/// A worker thread that runs `job` at once. `done` is true when it has returned.
class Worker {
  public:
    explicit Worker(std::function<void()> job)
        : thread([this, run = std::move(job)] {
              run();
              finished.store(true);
          }) {}
    ~Worker() { thread.join(); }

    [[nodiscard]] bool done() const { return finished.load(); }

  private:
    std::atomic<bool> finished{false};
    std::thread thread;
};

/// For state that a process has once: runs the statement in a new process.
#define EXPECT_IN_FRESH_PROCESS(statement)                     \
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";    \
    EXPECT_EXIT(                                               \
        {                                                      \
            statement;                                         \
            std::_Exit(::testing::Test::HasFailure() ? 1 : 0); \
        },                                                     \
        ::testing::ExitedWithCode(0), "")
