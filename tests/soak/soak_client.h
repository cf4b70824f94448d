#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <string>

#include <enet/enet.h>

#include "tests/soak/packet_check.h"
#include "tests/soak/request_check.h"
#include "tests/soak/soak_tally.h"
#include "tests/support/capture_table.h"
#include "tests/support/test_client.h"

/// A client that connects, changes mode and rate, stalls, vanishes and returns at random, and
/// holds every packet against what was asked for and what was played. A throttled one is restless
/// too, and lets the server's ENet hold best-effort audio back as it does by default. A steady one
/// never goes, and asks in turn for everything that is good in reliable mode.
///
/// Its waits are counted in callbacks, so that a run is the same at any speed.
class SoakClient {
  public:
    enum class Kind { Restless, Throttled, Steady };

    SoakClient(std::uint16_t serverPort, const CaptureTable& captureTable, unsigned seed,
               Kind kindOfClient);

    /// Services the client's host and sometimes does something else. `mayVanish` lets it go without
    /// a word, so that it keeps its slot and others lose theirs.
    void step(bool mayVanish);

    void leave();

    [[nodiscard]] const SoakTally& heard();

  private:
    using Clock = std::chrono::steady_clock;

    int pick(int least, int most);
    [[nodiscard]] bool connected() const;
    void change(bool mayVanish);
    void connect();
    void forget();
    void stall();
    void wakeUp();
    std::uint32_t nextRequest();
    void requestData();
    void service();
    /// Looks whether it was kept from its network for `missed` callbacks without wanting it.
    void noticeStarvation(std::uint64_t missed);

    /// Whether it may still lack what overflowed its receive buffer.
    [[nodiscard]] bool recovering() const { return Clock::now() < recoveredAt; }

    void judgeRequests();
    [[nodiscard]] std::chrono::milliseconds requestTimeout() const;
    bool handleEvents();
    void take(const ENetPacket& packet);
    void note(const std::string& problem);

    std::uint16_t port;
    const CaptureTable& table;
    Kind kind;
    SoakTally tally;
    PacketCheck packets;
    RequestCheck requests;
    std::mt19937 random;
    std::optional<TestClient> client;
    unsigned turn = 0;  ///< Requests of a steady client.
    bool stalled = false;
    bool catchingUp = false;   ///< Has stood still, and has not heard the present since.
    bool mayHaveHalf = false;  ///< Its queue may have been dropped, with half a packet under way.
    Clock::time_point recoveredAt;  ///< Until then it may hear the past, for want of a processor.
    std::uint64_t nextChange = 0;   ///< Callback.
    std::uint64_t lastService = 0;  ///< Callback.
    Clock::time_point lastServiceTime = Clock::now();
};
