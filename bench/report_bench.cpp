// What the rare work beside the stream costs.
//
// Columns are Google Benchmark's (--benchmark_out=FILE writes them as JSON): wall and processor
// time of one call.
//   printed_line/deferred   a line printed in the capture callback: into the queue, a post
//   status_report/headless  SetClientStatus of the core without a window
//   capture_flag            SetAudioCaptureActive, once for every raw block
//   window_tick/usual       the window's timer, nine times out of ten
//   window_tick/address     the tenth tick, which looks for this machine's address
//   status_report/window    SetClientStatus from a worker thread until the main thread, otherwise
//                           idle in its event loop, has shown it
// Expected shape: nanoseconds for what the callback does itself; a hundred microseconds where it
// has to wait for the main thread, which happens when somebody comes, goes or changes its choice.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <unistd.h>

#include <QApplication>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>

#include "app/console.h"
#include "bench/benchmark_table.h"
#include "gui/VelantrixServer.h"

namespace {

constexpr int TICKS = 3000;
constexpr int REPORTS = 5000;
constexpr int LINES_PER_PAUSE = 100;  // Fewer than the queue takes.

VelantrixServer* window = nullptr;

void deferredLine(benchmark::State& state) {
    int lines = 0;
    for (auto _ : state) {
        {
            const ConsoleDeferral deferral;
            consolePrintf("Client %s:%u disconnected\n", "192.168.178.123", 50123U);
        }
        if (++lines % LINES_PER_PAUSE == 0) {
            state.PauseTiming();
            consoleDrain(1000);
            state.ResumeTiming();
        }
    }
}

void headlessReport(benchmark::State& state) {
    VelantrixServerNoGUI& core = *window;
    for (auto _ : state) {
        core.VelantrixServerNoGUI::SetClientStatus(3, "A phone", false);
    }
}

void captureFlag(benchmark::State& state) {
    for (auto _ : state) {
        window->SetAudioCaptureActive();
    }
}

/// One tick of the kind that is asked for: the first of every ten reads the address.
void windowTick(benchmark::State& state, bool address) {
    static unsigned ticks = 0;
    for (auto _ : state) {
        state.PauseTiming();
        window->SetAudioCaptureActive();
        while ((ticks % 10 == 0) != address) {
            window->handleTimerTimeout();
            ++ticks;
        }
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        window->handleTimerTimeout();
        const std::chrono::duration<double> length = std::chrono::steady_clock::now() - start;
        ++ticks;
        state.SetIterationTime(length.count());
    }
}

void windowReport(benchmark::State& state) {
    std::atomic<bool> done{false};
    std::thread worker([&] {
        int number = 0;
        for (auto _ : state) {
            window->SetClientStatus(1 + number++ % 10, "A phone", false);
        }
        done.store(true);
        QMetaObject::invokeMethod(qApp, "quit", Qt::QueuedConnection);
    });
    QApplication::exec();
    worker.join();
}

void addRows() {
    benchmark::RegisterBenchmark("printed_line/deferred", deferredLine)->Iterations(20000);
    benchmark::RegisterBenchmark("status_report/headless", headlessReport)->Iterations(100000);
    benchmark::RegisterBenchmark("capture_flag", captureFlag)->Iterations(1000000);
    benchmark::RegisterBenchmark("window_tick/address",
                                 [](benchmark::State& state) { windowTick(state, true); })
        ->Iterations(TICKS)
        ->UseManualTime();
    benchmark::RegisterBenchmark("window_tick/usual",
                                 [](benchmark::State& state) { windowTick(state, false); })
        ->Iterations(TICKS)
        ->UseManualTime();
    benchmark::RegisterBenchmark("status_report/window", windowReport)
        ->Iterations(REPORTS)
        ->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
    std::ofstream table = takeStandardOutput();
    benchmark::Initialize(&argc, argv);
    const QTemporaryDir home;
    ::setenv("HOME", home.path().toLocal8Bit().constData(), 1);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    consoleStart();
    const QApplication application(argc, argv);
    window = new VelantrixServer(nullptr);  // Left to the end of the process: no sound to close.
    window->show();
    addRows();
    runBenchmarks(table);
    table.flush();
    ::_exit(0);
}
