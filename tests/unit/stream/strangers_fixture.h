#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "stream/client_table.h"
#include "stream/service_step.h"
#include "tests/unit/stream/hand_made_client.h"
#include "tests/unit/stream/live_server.h"
#include "tests/unit/stream/shifted_clock.h"

/// Hand-made clients, in addition to those of the real library.
class Strangers : public LiveServer {
  protected:
    void TearDown() override {
        strangers.clear();
        LiveServer::TearDown();
    }

    /// One whose connect the server has answered.
    HandMadeClient& begin(const Bytes& more = {}) {
        strangers.push_back(std::make_unique<HandMadeClient>(COMPANY | 1, more));
        HandMadeClient& stranger = *strangers.back();
        listenUntil([&stranger] { return stranger.peerId.has_value(); });
        return stranger;
    }

    /// One in the server's table; it acknowledges as if everything had been sent at `sentTime`, if
    /// given.
    HandMadeClient& arrive(std::optional<std::uint16_t> sentTime = std::nullopt) {
        HandMadeClient& stranger = begin();
        const std::int32_t before = connectCount;
        stranger.acknowledgeAll(sentTime);
        listenUntil([before] { return connectCount > before; });
        return stranger;
    }

    /// Services the server, and reads what the strangers receive.
    void listenUntil(const std::function<bool()>& done) {
        pumpUntil([&] {
            for (const auto& stranger : strangers) {
                stranger->listen();
            }
            return done();
        });
    }

    /// Advances the clock while the server works, once for each 100 ms.
    void letTimePass(std::chrono::milliseconds time, const std::function<void()>& meanwhile) {
        constexpr std::chrono::milliseconds STEP{100};
        for (std::chrono::milliseconds passed{0}; passed < time; passed += STEP) {
            shiftClock(STEP);
            serviceHost();
            for (const auto& stranger : strangers) {
                stranger->listen();
            }
            meanwhile();
        }
    }

    /// A sending time as long ago as an acknowledgement can name it: 32 s at least.
    static std::uint16_t longAgo() {
        constexpr enet_uint32 HALF = 0x8000;  // Where the time counts as another one.
        if (enet_time_get() % HALF > HALF - 5000) {
            shiftClock(std::chrono::seconds(6));
        }
        return (enet_time_get() & HALF) == 0 ? HALF : 0;
    }

    static ENetPeer& peerOf(const HandMadeClient& stranger) {
        return server->peers[stranger.peerId.value()];
    }

    static ENetPeer& peerOf(const TestClient& client) {
        return *clientConn.at(static_cast<std::size_t>(slotOf(client))).peer;
    }

    std::vector<std::unique_ptr<HandMadeClient>> strangers;
};
