// Datagrams that no client sends, or only after losses.

#include "stream/datagram_guard.h"

#include "stream/command_cost.h"
#include "stream/event_backlog.h"
#include "tests/support/enet_memory.h"
#include "tests/unit/stream/strangers_fixture.h"

namespace {

constexpr std::size_t LITTLE_MEMORY = std::size_t{512} * 1024;
constexpr std::size_t ENOUGH_MEMORY = std::size_t{2} * 1024 * 1024;
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

    /// From now on `passes` decides about each datagram whether the guard and ENet see it.
    static void filter(std::function<bool(const ENetHost&)> passes) {
        static ENetInterceptCallback guard = nullptr;
        static std::function<bool(const ENetHost&)> chosen;
        guard = guard == nullptr ? server->intercept : guard;
        chosen = std::move(passes);
        server->intercept = [](ENetHost* host, ENetEvent* event) {
            return chosen(*host) ? guard(host, event) : 1;
        };
    }

    static void deliver(HandMadeClient& stranger, const Bytes& commands) {
        deliver(stranger, std::vector<Bytes>{commands});
    }

    /// The maximum number of commands of a datagram, in this many datagrams.
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
    EXPECT_LT(enetBytes() - before, LITTLE_MEMORY);
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

TEST_F(DatagramGuard, NobodyIsAtPortZero) {
    for (int i = 0; i < 20; ++i) {
        sendForged(0, wire::DEFAULT_SERVER_PORT, ENET_PROTOCOL_MAXIMUM_PEER_ID,
                   connectCommand(COMPANY | 1));
        pumpFor(1);
        EXPECT_EQ(server->peers[0].state, ENET_PEER_STATE_DISCONNECTED);
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(DatagramGuard, UnreliableCommandsAheadOfTheReliableOnesTakeLittleMemory) {
    HandMadeClient& stranger = arrive();
    const std::size_t before = enetBytes();
    deliver(stranger, fullRows(150, [](int i) {
                return unreliable(static_cast<std::uint16_t>(1 + i % 20000),
                                  static_cast<std::uint16_t>(i), {});
            }));
    EXPECT_LE(waitingUnreliable(stranger), MAX_EARLY_UNRELIABLE + MAX_DATAGRAM_COMMANDS);
    EXPECT_LT(enetBytes() - before, LITTLE_MEMORY);
    EXPECT_EQ(connectCount, 1);
}

TEST_F(DatagramGuard, ReliableCommandsBehindALostOneTakeBoundedMemoryAndAreTakenLater) {
    HandMadeClient& stranger = arrive();
    const std::size_t before = enetBytes();
    constexpr int ROWS = 200;
    deliver(stranger, reliableRows(2, ROWS));
    EXPECT_EQ(waitingReliable(stranger), MAX_EARLY_RELIABLE - 1U);
    EXPECT_LT(enetBytes() - before, ENOUGH_MEMORY);
    deliver(stranger, reliable(1, controlMessage(2)));
    EXPECT_EQ(waitingReliable(stranger), 0U);
    deliver(stranger, reliableRows(2, ROWS));
    EXPECT_EQ(peerOf(stranger).channels[0].incomingReliableSequenceNumber, 1 + ROWS * FULL);
}

TEST_F(DatagramGuard, LongMessagesBehindALostOneLeaveRoomForIt) {
    TestClient& client = connect(COMPANY | 1);
    filter([lost = server->totalReceivedPackets + 1](const ENetHost& host) {
        return host.totalReceivedPackets != lost;
    });
    client.send(controlMessage(2));
    std::vector<unsigned char> message = controlMessage(3);
    message.resize(MAX_MESSAGE_BYTES + 1);
    for (std::size_t bytes = 0; bytes <= 2 * MAX_WAITING_BYTES; bytes += MAX_MESSAGE_BYTES) {
        client.send(message);
    }
    pumpUntil([&] {
        return peerOf(client).channels[0].incomingReliableSequenceNumber ==
               client.peer->channels[0].outgoingReliableSequenceNumber;
    });
    EXPECT_EQ(connectCount, 1);
}

TEST_F(DatagramGuard, EarlyCommandsOfManyClientsTakeNoMoreMemoryThanThoseOfOne) {
    std::vector<HandMadeClient*> crowd;
    for (int i = 0; i < 6; ++i) {
        crowd.push_back(&arrive());
    }
    const std::size_t before = enetBytes();
    for (HandMadeClient* const stranger : crowd) {
        deliver(*stranger, reliableRows(2, 60));
        deliver(*stranger, fullRows(4, [](int i) {
            return unreliable(1, static_cast<std::uint16_t>(i), {});
        }));
    }
    EXPECT_LT(enetBytes() - before, ENOUGH_MEMORY);
    EXPECT_EQ(connectCount, 6);
    deliver(*crowd.back(), reliableRows(1, 1));
    EXPECT_EQ(peerOf(*crowd.back()).channels[0].incomingReliableSequenceNumber,
              MAX_EARLY_WHEN_FULL);
}

TEST_F(DatagramGuard, MessageInPiecesWaitsAtItsFirstNumber) {
    HandMadeClient& stranger = arrive();
    Fragment fragment;
    fragment.count = 6000;
    fragment.totalLength = 6000;
    fragment.index = 5999;
    deliver(stranger, reliableFragment(fragment));
    EXPECT_EQ(waitingReliable(stranger), 1U);
    fragment.number = MAX_EARLY_RELIABLE + 1;
    fragment.index = 0;
    deliver(stranger, reliableFragment(fragment));
    EXPECT_EQ(waitingReliable(stranger), 1U);
}

TEST_F(DatagramGuard, NumbersAheadCountAcrossTheWrap) {
    HandMadeClient& stranger = arrive();
    constexpr enet_uint16 LAST = 0xFFF0;
    peerOf(stranger).channels[0].incomingReliableSequenceNumber = LAST;
    deliver(stranger, reliableRows(LAST + 2, 100));
    EXPECT_EQ(waitingReliable(stranger), MAX_EARLY_RELIABLE - 1U);
    deliver(stranger, reliable(LAST + 1, {}));
    EXPECT_EQ(waitingReliable(stranger), 0U);
    EXPECT_EQ(peerOf(stranger).channels[0].incomingReliableSequenceNumber,
              static_cast<enet_uint16>(LAST + MAX_EARLY_RELIABLE));
}

TEST_F(DatagramGuard, OnlyWhatComesTooEarlyIsPassedOver) {
    HandMadeClient& stranger = arrive();
    deliver(stranger, reliableRows(1, 1));
    listenUntil([&stranger] { return stranger.acknowledgements == FULL; });
    deliver(stranger, reliable(1, {}) + reliable(FULL, {}) + reliable(5000, {}) + ping());
    pumpFor(20);
    stranger.listen();
    EXPECT_EQ(stranger.acknowledgements, FULL + 3);
}

/// Real clients on a network that loses datagrams.
class LossyNetwork : public DatagramGuard, public testing::WithParamInterface<enet_uint32> {
  protected:
    /// From now on the server does not get the first of each group of this many datagrams.
    static void loseEvery(enet_uint32 rowLength) {
        filter([begin = server->totalReceivedPackets + 1, rowLength](const ENetHost& host) {
            return (host.totalReceivedPackets - begin) % rowLength != 0;
        });
    }
};

TEST_P(LossyNetwork, LosesNoMessageOfABurst) {
    TestClient& client = connect(COMPANY | 1);
    loseEvery(GetParam());
    constexpr std::uint32_t MESSAGES = 1000;
    for (std::uint32_t id = 100; id < 100 + MESSAGES; ++id) {
        client.send(controlMessage(id));
        if (id % FULL == 0) {
            serviceHost();
        }
    }
    pumpUntil([&client] {
        return peerOf(client).channels[0].incomingReliableSequenceNumber == MESSAGES;
    });
    EXPECT_EQ(connectCount, 1);
}

INSTANTIATE_TEST_SUITE_P(DatagramGuard, LossyNetwork, testing::Values(1000000, 7));

/// Commands that make ENet walk through long lists.
class LongLists : public DatagramGuard {
  protected:
    static constexpr int LENGTH = 3000;

    /// How many commands of this size ENet sees from many datagrams at once.
    static std::size_t shownOf(HandMadeClient& stranger, const Bytes& command) {
        static ENetInterceptCallback guard = nullptr;
        static std::size_t shown = 0;
        guard = server->intercept;
        shown = 0;
        server->intercept = [](ENetHost* host, ENetEvent* event) {
            const int result = guard(host, event);
            shown += host->receivedDataLength - sizeof(ENetProtocolHeader);
            return result;
        };
        deliver(stranger, fullRows(100, [&command](int) { return command; }));
        server->intercept = guard;
        return shown / command.size();
    }

    static void expectFewerStepsThanForever(std::size_t commands) {
        constexpr std::size_t TIME_MS = 200;
        EXPECT_GT(commands, 0U);
        EXPECT_LT(commands * LENGTH, MAX_STEPS + TIME_MS * STEPS_PER_MS);
    }
};

TEST_F(LongLists, AreNotWalkedThroughForAcknowledgementsOfNothingForever) {
    HandMadeClient& stranger = arrive();
    for (int i = 0; i < LENGTH; ++i) {
        enet_peer_send(&peerOf(stranger), 0, enet_packet_create("", 1, ENET_PACKET_FLAG_RELIABLE));
    }
    listenUntil([&stranger] { return stranger.unanswered.size() >= LENGTH; });
    expectFewerStepsThanForever(shownOf(stranger, acknowledgement(0, 0xFFFF, stranger.serverTime)));
    pumpFor(20);
    stranger.acknowledgeAll();
    listenUntil([&stranger] {
        stranger.acknowledgeAll();
        return enet_list_empty(&peerOf(stranger).sentReliableCommands);
    });
}

TEST_F(LongLists, AreNotWalkedThroughForRepeatedCommandsForever) {
    HandMadeClient& stranger = arrive();
    deliver(stranger, reliableRows(2, LENGTH / FULL + 1));
    expectFewerStepsThanForever(shownOf(stranger, reliable(2, {})));
    pumpFor(20);
    deliver(stranger, reliable(1, {}));
    EXPECT_EQ(waitingReliable(stranger), 0U);
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
