// Datagrams that no client sends, or only one that is worse off than it knows.

#include "stream/datagram_guard.h"

#include "stream/event_backlog.h"
#include "tests/support/enet_memory.h"
#include "tests/unit/stream/strangers_fixture.h"

namespace {

constexpr std::size_t ENOUGH_MEMORY = std::size_t{512} * 1024;
constexpr std::size_t MOST_WAITING = MAX_EARLY_COMMANDS + MAX_DATAGRAM_COMMANDS;
constexpr int FULL = static_cast<int>(MAX_DATAGRAM_COMMANDS);

class DatagramGuard : public Strangers {
  protected:
    void SetUp() override {
        watchEnetMemory();
        Strangers::SetUp();
    }

    /// Sends one datagram for each of `rows`; none but the stranger sends.
    static void deliver(HandMadeClient& stranger, const std::vector<Bytes>& rows) {
        constexpr std::size_t AT_ONCE = 32;
        for (std::size_t i = 0; i < rows.size(); i += AT_ONCE) {
            const std::size_t end = std::min(i + AT_ONCE, rows.size());
            const enet_uint32 all =
                server->totalReceivedPackets + static_cast<enet_uint32>(end - i);
            for (std::size_t j = i; j < end; ++j) {
                stranger.send(rows[j]);
            }
            while (server->totalReceivedPackets < all) {
                serviceHost();
            }
        }
    }

    static void deliver(HandMadeClient& stranger, const Bytes& commands) {
        deliver(stranger, std::vector<Bytes>{commands});
    }

    /// As many commands as a datagram may have, in so many datagrams.
    static std::vector<Bytes> fullRows(int rows, const std::function<Bytes(int)>& command) {
        std::vector<Bytes> all(static_cast<std::size_t>(rows));
        for (int i = 0; i < rows * FULL; ++i) {
            Bytes& row = all[static_cast<std::size_t>(i / FULL)];
            row = std::move(row) + command(i);
        }
        return all;
    }

    static std::size_t waitingReliable(const HandMadeClient& stranger) {
        return enet_list_size(&peerOf(stranger).channels[0].incomingReliableCommands);
    }

    static std::size_t waitingUnreliable(const HandMadeClient& stranger) {
        return enet_list_size(&peerOf(stranger).channels[0].incomingUnreliableCommands);
    }

    /// Reliable commands without data, from this number on.
    static std::vector<Bytes> reliableRows(int first, int rows) {
        return fullRows(
            rows, [first](int i) { return reliable(static_cast<std::uint16_t>(first + i), {}); });
    }
};

TEST_F(DatagramGuard, PiecesOfMessagesOfAMillionPiecesTakeNoMemory) {
    HandMadeClient& stranger = arrive();
    const std::size_t before = enetBytes();
    Fragment fragment;
    fragment.count = ENET_PROTOCOL_MAXIMUM_FRAGMENT_COUNT;
    for (const std::uint32_t length : {1U, 0x1000000U}) {
        fragment.totalLength = length;
        deliver(stranger, fullRows(4, [&fragment](int i) {
                    fragment.number = static_cast<std::uint16_t>(1 + i);
                    return i % 2 != 0 ? unreliableFragment(1, fragment)
                                      : reliableFragment(fragment);
                }));
    }
    EXPECT_LT(enetBytes() - before, ENOUGH_MEMORY);
    EXPECT_EQ(connectCount, 1);
}

TEST_F(DatagramGuard, NothingIsReadOfMoreCommandsThanAnyClientSends) {
    HandMadeClient& stranger = arrive();
    deliver(stranger, ping() * (FULL + 1));
    deliver(stranger, ping() * FULL);
    pumpFor(20);
    stranger.listen();
    EXPECT_EQ(stranger.acknowledgements, FULL);
}

TEST_F(DatagramGuard, UnreliableCommandsAheadOfTheReliableOnesTakeLittleMemory) {
    HandMadeClient& stranger = arrive();
    const std::size_t before = enetBytes();
    deliver(stranger, fullRows(150, [](int i) {
                return unreliable(static_cast<std::uint16_t>(1 + i % 20000),
                                  static_cast<std::uint16_t>(i), {});
            }));
    EXPECT_LE(waitingUnreliable(stranger), MOST_WAITING);
    EXPECT_LT(enetBytes() - before, ENOUGH_MEMORY);
    EXPECT_EQ(connectCount, 1);
}

TEST_F(DatagramGuard, ReliableCommandsBehindALostOneTakeLittleMemoryAndAreTakenLater) {
    HandMadeClient& stranger = arrive();
    const std::size_t before = enetBytes();
    constexpr int ROWS = 20;
    deliver(stranger, reliableRows(2, ROWS));
    EXPECT_LE(waitingReliable(stranger), MOST_WAITING);
    EXPECT_LT(enetBytes() - before, ENOUGH_MEMORY);
    deliver(stranger, reliable(1, controlMessage(2)));
    EXPECT_EQ(waitingReliable(stranger), 0U);
    deliver(stranger, reliableRows(2, ROWS));
    EXPECT_EQ(peerOf(stranger).channels[0].incomingReliableSequenceNumber, 1 + ROWS * FULL);
}

TEST_F(DatagramGuard, LostMessageIsTakenInPiecesWhileThoseBehindItFillTheRoom) {
    HandMadeClient& stranger = arrive();
    deliver(stranger, reliableRows(3, 10));
    ASSERT_GE(waitingReliable(stranger), MAX_EARLY_COMMANDS);
    Fragment fragment;
    fragment.count = 2;
    fragment.totalLength = 2;
    deliver(stranger, reliableFragment(fragment));
    fragment.index = 1;
    fragment.offset = 1;
    deliver(stranger, reliableFragment(fragment));
    EXPECT_EQ(waitingReliable(stranger), 0U);
}

TEST_F(DatagramGuard, NumbersAheadCountAcrossTheWrap) {
    HandMadeClient& stranger = arrive();
    constexpr enet_uint16 LAST = 0xFFF0;
    peerOf(stranger).channels[0].incomingReliableSequenceNumber = LAST;
    deliver(stranger, reliableRows(LAST + 2, 10));
    const std::size_t waiting = waitingReliable(stranger);
    EXPECT_GE(waiting, MAX_EARLY_COMMANDS);
    EXPECT_LE(waiting, MOST_WAITING);
    deliver(stranger, reliable(LAST + 1, {}));
    EXPECT_EQ(waitingReliable(stranger), 0U);
    EXPECT_EQ(peerOf(stranger).channels[0].incomingReliableSequenceNumber,
              static_cast<enet_uint16>(LAST + 1 + waiting));
}

TEST_F(DatagramGuard, WhatHasBeenTakenIsAcknowledgedAgainWhenThereIsNoRoom) {
    HandMadeClient& stranger = arrive();
    deliver(stranger, reliableRows(1, 1));
    deliver(stranger, reliableRows(FULL + 2, 10));
    listenUntil(
        [&] { return stranger.acknowledgements >= 1 + static_cast<int>(MAX_EARLY_COMMANDS); });
    stranger.acknowledgements = 0;
    deliver(stranger, reliable(1, {}) + reliable(FULL, {}) + reliable(5000, {}) + ping());
    pumpFor(20);
    stranger.listen();
    EXPECT_EQ(stranger.acknowledgements, 2) << "not for what has no room, and what stands behind";
}

TEST_F(DatagramGuard, RealClientLosesNoMessageOfABurstThatBeganWithALoss) {
    TestClient& client = connect(COMPANY | 1);
    static ENetInterceptCallback guard = nullptr;
    static enet_uint32 lost = 0;
    guard = server->intercept;
    lost = server->totalReceivedPackets + 1;
    server->intercept = [](ENetHost* host, ENetEvent* event) {
        return host->totalReceivedPackets == lost ? 1 : guard(host, event);
    };
    constexpr std::uint32_t MESSAGES = 2000;
    for (std::uint32_t id = 100; id < 100 + MESSAGES; ++id) {
        client.send(controlMessage(id));
        if (id % 64 == 0) {
            serviceHost();
        }
    }
    std::size_t most = 0;
    pumpUntil([&] {
        most = std::max(most, enet_list_size(&peerOf(client).channels[0].incomingReliableCommands));
        return peerOf(client).channels[0].incomingReliableSequenceNumber == MESSAGES;
    });
    EXPECT_GE(most, MAX_EARLY_COMMANDS) << "the room was full";
    EXPECT_EQ(connectCount, 1);
}

TEST_F(DatagramGuard, NobodyIsAtPortZero) {
    for (int i = 0; i < 20; ++i) {
        sendForged(0, wire::DEFAULT_SERVER_PORT, ENET_PROTOCOL_MAXIMUM_PEER_ID,
                   connectCommand(COMPANY | 1));
        pumpFor(1);
        EXPECT_EQ(server->peers[0].state, ENET_PEER_STATE_DISCONNECTED);
    }
    EXPECT_EQ(printed(), "");
}

struct DestroyHost {
    void operator()(ENetHost* host) const { enet_host_destroy(host); }
};

/// A server of another make in the same network.
class TwoServers : public Strangers {
  protected:
    TwoServers() {
        ENetAddress address = {ENET_HOST_ANY, OTHER};
        other.reset(enet_host_create(&address, 4, 2, 0, 0));
    }

    void SetUp() override {
        Strangers::SetUp();
        ASSERT_NE(other, nullptr);
    }

    /// The other one may hear, and both may answer.
    void talk() {
        ENetEvent event = {};
        enet_host_service(other.get(), &event, 0);
        serviceHost();
    }

    static constexpr std::uint16_t OURS = wire::DEFAULT_SERVER_PORT;
    static constexpr std::uint16_t OTHER = OURS + 10;
    std::unique_ptr<ENetHost, DestroyHost> other;
};

TEST_F(TwoServers, AreNotTiedTogetherByForgedConnects) {
    const Bytes answer = acknowledgement(CONTROL_CHANNEL, 1, 0);
    sendForged(OTHER, OURS, ENET_PROTOCOL_MAXIMUM_PEER_ID, connectCommand(COMPANY | 1));
    talk();
    sendForged(OTHER, OURS, 0, answer);
    talk();
    ASSERT_EQ(connectCount, 1);
    sendForged(OURS, OTHER, ENET_PROTOCOL_MAXIMUM_PEER_ID, connectCommand(COMPANY | 1));
    sendForged(OURS, OTHER, 0, answer);
    letTimePass(std::chrono::minutes(1), [this] { talk(); });
    EXPECT_EQ(connectCount, 0);
}

TEST_F(TwoServers, NobodyIsTiedToItself) {
    sendForged(OURS, OURS, ENET_PROTOCOL_MAXIMUM_PEER_ID, connectCommand(COMPANY | 1));
    pumpFor(5);
    sendForged(OURS, OURS, 0, acknowledgement(CONTROL_CHANNEL, 1, 0));
    letTimePass(std::chrono::minutes(1), [] {});
    EXPECT_EQ(connectCount, 0);
    EXPECT_EQ(server->peers[0].state, ENET_PEER_STATE_DISCONNECTED);
}

}  // namespace
