// Every way in which a client can leave: its place is free again, and its end is reported once if
// its connection was.

#include "stream/stuck_peers.h"

#include <utility>

#include "stream/client_table.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "tests/support/enet_memory.h"
#include "tests/support/named_case.h"
#include "tests/unit/stream/live_server.h"
#include "tests/unit/stream/strangers_fixture.h"

namespace {

class StuckPeers : public Strangers {
  protected:
    /// One that is being disconnected, and knows it.
    HandMadeClient& arriveAndBeThrownOut() {
        HandMadeClient& stranger = arrive();
        enet_peer_disconnect(&peerOf(stranger), wire::DISCONNECT_REPLACED);
        listenUntil([&stranger] { return stranger.disconnectData.has_value(); });
        return stranger;
    }

    /// The place is free; with one line and one report if its client had been counted.
    void expectGone(const HandMadeClient& stranger, bool counted) {
        listenUntil([&stranger] { return peerOf(stranger).state == ENET_PEER_STATE_DISCONNECTED; });
        serviceHost();
        EXPECT_EQ(connectCount, others);
        const std::string line =
            "Client 127.0.0.1:" + std::to_string(stranger.port()) + " disconnected\n";
        const std::string lines = printed();
        EXPECT_EQ(lines.find(line) != std::string::npos, counted) << lines;
        EXPECT_EQ(lines.find(line), lines.rfind(line)) << lines;
        EXPECT_EQ(core().statusReports.size(), (counted ? 2U : 0U) + static_cast<unsigned>(others));
        EXPECT_EQ(slotOf(connect(COMPANY | 1)), others) << "the slot is free for the next client";
    }

    std::int32_t others = 0;
};

struct Goodbye : NamedCase {
    bool withTime;
    bool wantsAcknowledgement;
};

class WaysToLeave : public StuckPeers, public testing::WithParamInterface<Goodbye> {
  protected:
    static void leave(HandMadeClient& stranger) {
        stranger.send(goodbye(GetParam().wantsAcknowledgement), GetParam().withTime);
    }
};

TEST_P(WaysToLeave, Connected) {
    HandMadeClient& stranger = arrive();
    leave(stranger);
    expectGone(stranger, true);
    stranger.listen();
    EXPECT_EQ(stranger.acknowledgements, GetParam().withTime && GetParam().wantsAcknowledgement);
}

TEST_P(WaysToLeave, WithMessagesThatWait) {
    HandMadeClient& stranger = arrive();
    stranger.send(reliable(1, controlMessage(2)) + reliable(2, controlMessage(2)));
    listenUntil([&] { return !enet_list_empty(&peerOf(stranger).dispatchedCommands); });
    leave(stranger);
    expectGone(stranger, true);
}

TEST_P(WaysToLeave, Connecting) {
    HandMadeClient& stranger = begin();
    leave(stranger);
    expectGone(stranger, false);
}

TEST_P(WaysToLeave, InTheDatagramThatCompletesTheConnection) {
    HandMadeClient& stranger = begin();
    stranger.send(acknowledgement(CONTROL_CHANNEL, stranger.unanswered.at(0).number,
                                  stranger.unanswered.at(0).sentTime) +
                      goodbye(GetParam().wantsAcknowledgement),
                  GetParam().withTime);
    expectGone(stranger, true);
}

TEST_P(WaysToLeave, ConnectedWhileMessagesOfAnotherWait) {
    HandMadeClient& busy = arrive();
    others = 1;
    HandMadeClient& stranger = begin();
    busy.send(reliable(1, controlMessage(2)) + reliable(2, controlMessage(2)) +
              reliable(3, controlMessage(2)));
    EXPECT_EQ(serviceHost(), 1);
    stranger.acknowledgeAll();
    leave(stranger);
    expectGone(stranger, true);
}

TEST_P(WaysToLeave, BeingThrownOut) {
    HandMadeClient& stranger = arriveAndBeThrownOut();
    leave(stranger);
    expectGone(stranger, true);
}

TEST_P(WaysToLeave, WithMemoryRefused) {
    HandMadeClient& stranger = arrive();
    leave(stranger);
    {
        const RefusedMemory none;
        serviceHost();
    }
    expectGone(stranger, true);
}

INSTANTIATE_TEST_SUITE_P(Goodbyes, WaysToLeave,
                         testing::Values(Goodbye{"WithTimeToBeAcknowledged", true, true},
                                         Goodbye{"WithTime", true, false},
                                         Goodbye{"WithoutTimeToBeAcknowledged", false, true},
                                         Goodbye{"WithoutTime", false, false}),
                         CASE_NAME);

TEST_F(StuckPeers, AllPlacesAreFreeAfterAsManyGoodbyesThatCannotBeAcknowledged) {
    for (std::size_t i = 0; i < server->peerCount; ++i) {
        arrive().send(goodbye(true), false);
    }
    listenUntil([] { return connectCount == 0; });
    for (std::size_t i = 0; i < server->peerCount; ++i) {
        arrive();
    }
}

TEST_F(StuckPeers, ConnectingPeerThatAnswersAsAServerIsNoClient) {
    HandMadeClient& stranger = begin();
    stranger.send(verifyConnectCommand());
    expectGone(stranger, false);
}

TEST_F(StuckPeers, ConnectedPeerThatAnswersAsAServerIsNoClient) {
    HandMadeClient& stranger = arrive();
    stranger.send(verifyConnectCommand() + reliable(1, controlMessage(2)));
    expectGone(stranger, true);
    EXPECT_EQ(stranger.acknowledgements, 0);
}

TEST_F(StuckPeers, ThrownOutInTheOrdinaryWay) {
    HandMadeClient& stranger = arriveAndBeThrownOut();
    EXPECT_EQ(findStuckPeer(*server), nullptr) << "its answer may still come";
    stranger.acknowledgeAll();
    expectGone(stranger, true);
}

TEST_F(StuckPeers, ThrownOutWithMemoryRefused) {
    HandMadeClient& stranger = arrive();
    {
        const RefusedMemory none;
        enet_peer_disconnect(&peerOf(stranger), wire::DISCONNECT_REPLACED);
    }
    expectGone(stranger, true);
}

TEST_F(StuckPeers, ConnectingWithMemoryRefused) {
    const HandMadeClient stranger;
    const RefusedMemory forTheAnswer(1);
    serviceHost();
    for (const ENetPeer* peer = server->peers; peer < server->peers + server->peerCount; ++peer) {
        EXPECT_EQ(peer->state, ENET_PEER_STATE_DISCONNECTED);
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(StuckPeers, ConnectingPeerIsNotStuckBeforeItAnswers) {
    begin();
    EXPECT_EQ(findStuckPeer(*server), nullptr);
}

TEST_F(StuckPeers, ConnectedPeerWithNothingToSayIsNotStuck) {
    HandMadeClient& stranger = arrive();
    enet_peer_reset_queues(&peerOf(stranger));
    EXPECT_EQ(findStuckPeer(*server), nullptr);
}

/// What SECURITY.md promises, and a little more.
constexpr std::chrono::seconds TIMEOUT{42};

/// Clients that fall silent after an acknowledgement that names a time long ago.
class Silence : public StuckPeers {
  protected:
    void expectGoneInTime(const HandMadeClient& stranger, bool counted) {
        letTimePass(TIMEOUT, [] { sendBlock(); });
        EXPECT_EQ(peerOf(stranger).state, ENET_PEER_STATE_DISCONNECTED);
        expectGone(stranger, counted);
    }
};

TEST_F(Silence, OfAConnectedClientEnds) {
    expectGoneInTime(arrive(longAgo()), true);
}

TEST_F(Silence, OfAClientThatHearsEnds) {
    for (const std::uint32_t reliably : {0U, 1U}) {
        HandMadeClient& stranger = arrive(longAgo());
        stranger.send(reliable(1, dataRequest(reliably)));
        listenUntil([] { return clientConn[0].dataRequested != 0; });
        letTimePass(TIMEOUT, [] { sendBlock(); });
        EXPECT_EQ(peerOf(stranger).state, ENET_PEER_STATE_DISCONNECTED);
        EXPECT_EQ(connectCount, 0);
    }
}

TEST_F(Silence, OfAClientThatSendsMessagesEnds) {
    HandMadeClient& stranger = arrive(longAgo());
    std::uint16_t number = 0;
    letTimePass(TIMEOUT, [&] {
        ++number;
        stranger.send(reliable(number, controlMessage(2)) + unsequenced(number, controlMessage(3)));
    });
    EXPECT_EQ(connectCount, 0);
}

TEST_F(Silence, OfAClientThatConnectsEnds) {
    expectGoneInTime(begin(acknowledgement(CONTROL_CHANNEL, 0, longAgo())), false);
}

TEST_F(Silence, OfAClientThatIsThrownOutEnds) {
    HandMadeClient& stranger = arrive(longAgo());
    enet_peer_disconnect(&peerOf(stranger), wire::DISCONNECT_REPLACED);
    expectGoneInTime(stranger, true);
}

TEST_F(Silence, IsNotWhatAnswersLate) {
    HandMadeClient& stranger = begin();
    constexpr std::size_t STEPS = 80;  // Of letTimePass.
    std::vector<std::vector<HandMadeClient::Command>> underWay(STEPS);
    std::size_t step = 0;
    letTimePass(std::chrono::minutes(3), [&] {
        std::vector<HandMadeClient::Command>& due = underWay[++step % STEPS];
        std::swap(due, stranger.unanswered);
        stranger.acknowledgeAll();
    });
    EXPECT_EQ(connectCount, 1);
}

TEST_F(Silence, IsNotThatOfTheServerItself) {
    HandMadeClient& stranger = arrive();
    shiftClock(std::chrono::minutes(2));
    pumpFor(20);
    EXPECT_EQ(connectCount, 1);
    EXPECT_EQ(peerOf(stranger).state, ENET_PEER_STATE_CONNECTED);
}

class DispatchQueue : public Strangers {};

/// The acknowledgement brings to light that another command is overdue, which ENet then finds in
/// the same service call.
TEST_F(DispatchQueue, PeerThatTimesOutWithItsMessageQueuedIsNotLinkedAnyMore) {
    HandMadeClient& stranger = arrive(longAgo());
    shiftClock(std::chrono::seconds(2));
    listenUntil([&stranger] { return !stranger.unanswered.empty(); });
    const HandMadeClient::Command patient = stranger.unanswered.front();
    for (int i = 0; i < 4; ++i) {
        stranger.send(acknowledgement(CONTROL_CHANNEL, 0, stranger.serverTime) * 32);
    }
    pumpFor(20);
    stranger.unanswered.clear();
    stranger.send(reliable(1, dataRequest(1)));
    listenUntil([] { return clientConn[0].dataRequested != 0; });
    sendBlock();
    shiftClock(std::chrono::seconds(31));
    stranger.send(acknowledgement(patient.channel, patient.number, patient.sentTime) +
                  reliable(2, controlMessage(2)));
    EXPECT_EQ(serviceHost(), 1);
    ASSERT_EQ(connectCount, 0);
    EXPECT_EQ(peerOf(stranger).state, ENET_PEER_STATE_DISCONNECTED);
    ASSERT_TRUE(enet_list_empty(&server->dispatchQueue));
    tell(connect(COMPANY | 1), controlMessage(2));
}

}  // namespace
