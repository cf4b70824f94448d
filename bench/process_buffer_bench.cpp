// What one call of processBuffer costs, by pass, number of connected loopback clients and choice.
//
// Each row is one combination; clients are real ENet clients in processes of their own. Columns:
//   own_p50, own_p99    our own work: the call less Opus, less ENet, in microseconds
//   opus_p50            opus_encode
//   enet_p50            ENet's calls without the 1 ms wait for the socket
//   call_p50, call_p99  the whole call without that wait
//   period_share_p99    call_p99 as a share of the block period (338 frames at 48 kHz, 7.04 ms)
// Expected shape: own work is flat and far below the rest; ENet grows with the clients, since
// every client's packet is a system call; Opus is there once per rate code in use.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <time.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/call_timers.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "stream/wire_format.h"
#include "tests/support/bench_clients.h"
#include "tests/support/bench_server.h"

namespace {

constexpr double BLOCK_PERIOD_US = 338.0 / 48000.0 * 1e6;
constexpr long PAUSE_BETWEEN_CALLS_NS = 2000000;
constexpr int CALLS_PER_ROW = 1500;

enum Choice { RawReliable, RawBestEffort, Rate20, Rate64, Rate128, Rate256, Mixed };
constexpr const char* CHOICE_NAMES[] = {
    "raw-reliable", "raw-best-effort", "20k", "64k", "128k", "256k", "mixed"};

std::vector<BenchClients::Choice> choicesOf(Choice choice, std::size_t clients) {
    constexpr BenchClients::Choice CHOICES[] = {{0, true}, {0, false}, {5, true},
                                                {1, true}, {2, true},  {3, true}};
    constexpr BenchClients::Choice MIXED_CHOICES[] = {{0, true},  {0, false}, {5, true},
                                                      {1, false}, {2, true},  {3, false}};
    std::vector<BenchClients::Choice> chosen;
    for (std::size_t i = 0; i < clients; ++i) {
        chosen.push_back(choice == Mixed ? MIXED_CHOICES[i % std::size(MIXED_CHOICES)]
                                         : CHOICES[choice]);
    }
    return chosen;
}

/// A block of music-like sound, so that Opus has work to do.
void fillBlock(std::vector<char>& buffer, double& phase) {
    for (std::size_t at = wire::HEADER_LENGTH; at + 4 <= buffer.size(); at += 4) {
        phase += 2 * M_PI * 440 / 48000;
        const double value =
            8000 * std::sin(phase) + 4000 * std::sin(3.01 * phase) + std::rand() % 1000;
        const auto sample = static_cast<std::int16_t>(value);
        std::copy_n(reinterpret_cast<const char*>(&sample), 2, &buffer[at]);
        std::copy_n(reinterpret_cast<const char*>(&sample), 2, &buffer[at + 2]);
    }
}

double percentile(std::vector<double>& values, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<std::size_t>(at)];
}

struct Samples {
    std::vector<double> own, opus, enet, call;

    void add(std::int64_t total, const CallTimes& times) {
        const auto us = [](std::int64_t ns) { return static_cast<double>(ns) / 1000; };
        own.push_back(us(total - times.opus - times.enet));
        opus.push_back(us(times.opus));
        enet.push_back(us(times.enet - times.wait));
        call.push_back(us(total - times.wait));
    }

    void report(benchmark::State& state) {
        state.counters["own_p50"] = percentile(own, 0.5);
        state.counters["own_p99"] = percentile(own, 0.99);
        state.counters["opus_p50"] = percentile(opus, 0.5);
        state.counters["enet_p50"] = percentile(enet, 0.5);
        state.counters["call_p50"] = percentile(call, 0.5);
        const double worst = percentile(call, 0.99);
        state.counters["call_p99"] = worst;
        state.counters["period_share_p99"] = worst / BLOCK_PERIOD_US;
    }
};

void processBufferCost(benchmark::State& state, std::size_t length, Choice choice,
                       std::size_t clients) {
    const BenchClients processes(server->address.port, choicesOf(choice, clients));
    serviceUntilStreaming(clients);
    std::vector<char> buffer(length);
    double phase = 0;
    Samples samples;
    for (auto _ : state) {
        fillBlock(buffer, phase);
        const timespec pause{0, PAUSE_BETWEEN_CALLS_NS};
        ::nanosleep(&pause, nullptr);
        callTimes = CallTimes{};
        const std::int64_t start = nowNs();
        processBuffer(buffer.data(), static_cast<int>(buffer.size()), true);
        const std::int64_t total = nowNs() - start;
        samples.add(total, callTimes);
        state.SetIterationTime(static_cast<double>(total - callTimes.wait) / 1e9);
    }
    samples.report(state);
}

void addRow(const char* pass, std::size_t length, Choice choice, std::size_t clients) {
    const std::string name = std::string(pass) + "/" +
                             (clients == 0 ? "nobody" : CHOICE_NAMES[choice]) + "/" +
                             std::to_string(clients);
    benchmark::RegisterBenchmark(
        name.c_str(),
        [=](benchmark::State& state) { processBufferCost(state, length, choice, clients); })
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(CALLS_PER_ROW);
}

void addRows() {
    constexpr std::size_t RAW = wire::RAW_BUFFER_LENGTH;
    constexpr std::size_t COMPRESSED = wire::COMPRESSED_BUFFER_LENGTH;
    addRow("raw", RAW, RawReliable, 0);
    addRow("compressed", COMPRESSED, Rate64, 0);
    for (const std::size_t clients : {1U, 10U}) {
        for (const Choice choice : {RawReliable, RawBestEffort, Mixed}) {
            addRow("raw", RAW, choice, clients);
        }
        for (const Choice choice : {Rate20, Rate64, Rate128, Rate256, Mixed}) {
            addRow("compressed", COMPRESSED, choice, clients);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    createBenchServer();
    addRows();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
