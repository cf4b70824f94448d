// Nine restless clients and a steady one, which hold every packet against what was played.
// Usage: soak_clients PORT TABLE CALLBACKS SEED
// Ends when the server has made CALLBACKS more callbacks; status 1 when any packet was wrong, the
// capture stands still or, in a run of a quarter of an hour or more, some client was not served, or
// some kind of packet or some wrap was heard too seldom for the length of the run.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <enet/enet.h>

#include "tests/soak/soak_client.h"
#include "tests/support/capture_table.h"

namespace {

constexpr unsigned CLIENTS = 10;
constexpr std::chrono::seconds CAPTURE_LIMIT{60};

/// A quarter of an hour of sound. For its first three quarters nobody vanishes: no client is
/// replaced, and the steady one's connection passes the wrap of ENet's 16-bit numbers.
constexpr std::uint64_t PERIOD = 127800;
constexpr std::uint64_t ORDERLY = PERIOD / 4 * 3;

/// What every period brings at the least: thousands are usual of the rarest kind of packet, and ten
/// requests kept by each client.
constexpr long PACKETS_OF_A_KIND = 100;
constexpr long REQUESTS_OF_A_CLIENT = 1;

using Clients = std::vector<std::unique_ptr<SoakClient>>;

/// Some of the restless ones leave ENet's throttle as it is.
SoakClient::Kind kindOf(unsigned index) {
    if (index == 0) {
        return SoakClient::Kind::Steady;
    }
    return index % 3 == 0 ? SoakClient::Kind::Throttled : SoakClient::Kind::Restless;
}

/// Tells a capture that works from one that stands still.
class CaptureWatch {
  public:
    bool alive(std::uint64_t callbacks) {
        if (callbacks != seen) {
            seen = callbacks;
            since = Clock::now();
        }
        return Clock::now() - since < CAPTURE_LIMIT;
    }

  private:
    using Clock = std::chrono::steady_clock;

    std::uint64_t seen = 0;
    Clock::time_point since = Clock::now();
};

/// False when the capture stopped before `wanted` more callbacks.
bool run(const Clients& clients, CaptureTable& table, std::uint64_t wanted) {
    CaptureWatch watch;
    const std::uint64_t start = table.callbacks.load();
    for (std::uint64_t made = 0; made < wanted; made = table.callbacks.load() - start) {
        if (!watch.alive(made)) {
            std::fputs("soak_clients: the capture stands still\n", stderr);
            return false;
        }
        for (const auto& client : clients) {
            client->step(made % PERIOD >= ORDERLY);
        }
        table.clientRounds.fetch_add(1);
        ::usleep(200);
    }
    return true;
}

/// True when `count` is `least` or more.
bool demand(const std::string& name, long count, long least) {
    std::printf("%s: %ld\n", name.c_str(), count);
    if (count < least) {
        std::fprintf(stderr, "soak_clients: too few %s: %ld, not %ld\n", name.c_str(), count,
                     least);
    }
    return count >= least;
}

/// `periods` is how many the run had, 1 or more.
bool everythingHeard(const SoakTally& all, long periods) {
    const long packets = periods * PACKETS_OF_A_KIND;
    // The steady client passes one in each period, if a busy machine does not make it leave.
    const long enetWraps = std::max(1L, periods * 3 / 4);
    bool good = true;
    for (std::size_t code = 0; code < all.byRateCode.size(); ++code) {
        good =
            demand("packets of rate code " + std::to_string(code), all.byRateCode[code], packets) &&
            good;
    }
    good = demand("fallback packets", all.fallback, packets) && good;
    good = demand("reliable packets", all.reliable, packets) && good;
    good = demand("best-effort packets", all.bestEffort, packets) && good;
    good = demand("reliable packets that had to follow the last one", all.steps, packets) && good;
    good = demand("wraps of ENet's 16-bit numbers", all.enetWraps, enetWraps) && good;
    good = demand("clients on both sides of the raw wrap", all.rawWraps, 1) && good;
    return demand("clients on both sides of the compressed wrap", all.compressedWraps, 1) && good;
}

/// `periods` is how many whole ones the run had; in less than one nothing has to come.
bool report(const Clients& clients, long periods) {
    SoakTally all;
    bool allServed = true;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const SoakTally& heard = clients[i]->heard();
        std::printf(
            "client %zu: %ld connections, %ld packets, %ld requests kept, %ld times stuck, "
            "%ld times starved, %ld errors\n",
            i, heard.connections, heard.packets(), heard.requestsKept, heard.stuck, heard.starved,
            heard.errors);
        all += heard;
        allServed = allServed && heard.requestsKept >= periods * REQUESTS_OF_A_CLIENT;
    }
    if (periods == 0) {
        return all.errors == 0;
    }
    if (!allServed) {
        std::fputs("soak_clients: a client was hardly served\n", stderr);
    }
    return everythingHeard(all, periods) && allServed && all.errors == 0;
}

}  // namespace

int main(int argc, char** argv) {
    CaptureTable* const table = argc == 5 ? mapCaptureTable(argv[2], TableUse::Tell) : nullptr;
    if (table == nullptr || enet_initialize() != 0) {
        std::fputs("usage: soak_clients PORT TABLE CALLBACKS SEED\n", stderr);
        return 2;
    }
    const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    const std::uint64_t callbacks = std::strtoull(argv[3], nullptr, 10);
    const auto seed = static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10));
    const std::uint64_t start = table->callbacks.load();
    const std::uint64_t rawWrap = 0U - table->firstRaw.load();
    std::printf("seed %u, from callback %llu, raw wrap at %llu\n", seed,
                static_cast<unsigned long long>(start), static_cast<unsigned long long>(rawWrap));
    if (callbacks >= PERIOD && start >= rawWrap) {
        std::fputs("soak_clients: the wrap was passed before the start\n", stderr);
    }
    Clients clients;
    for (unsigned i = 0; i < CLIENTS; ++i) {
        clients.push_back(std::make_unique<SoakClient>(port, *table, seed * 100 + i, kindOf(i)));
    }
    const bool ran = run(clients, *table, callbacks);
    for (const auto& client : clients) {
        client->leave();
    }
    return report(clients, static_cast<long>(callbacks / PERIOD)) && ran ? 0 : 1;
}
