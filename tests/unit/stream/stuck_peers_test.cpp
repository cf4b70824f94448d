// Peers for whose next command ENet had no memory.

#include "stream/stuck_peers.h"

#include <utility>

#include "stream/send_path.h"
#include "tests/unit/stream/strangers_fixture.h"

namespace {

/// Whether the service step is told of a lack of memory, once.
bool toldLackOfMemory = false;

}  // namespace

extern "C" {

bool __real__Z21takeEnetMemoryFailurev();

// takeEnetMemoryFailure(): the name is the linker's.
bool __wrap__Z21takeEnetMemoryFailurev() {
    return std::exchange(toldLackOfMemory, false) || __real__Z21takeEnetMemoryFailurev();
}
}

namespace {

class StuckPeers : public LiveServer {
  protected:
    static ENetPeer& peerOf(const TestClient& client) {
        return *clientConn.at(static_cast<std::size_t>(slotOf(client))).peer;
    }

    static ENetPeer* peerThatConnects() {
        for (ENetPeer* peer = server->peers; peer < server->peers + server->peerCount; ++peer) {
            if (peer->state == ENET_PEER_STATE_ACKNOWLEDGING_CONNECT) {
                return peer;
            }
        }
        return nullptr;
    }

    /// As if there had been no memory for the peer's commands.
    static void loseCommands(ENetPeer& peer) { enet_peer_reset_queues(&peer); }
};

TEST_F(StuckPeers, PeerWhoseAnswerIsUnderWayIsNotStuck) {
    TestClient silent(COMPANY | 1);
    silent.service();
    while (peerThatConnects() == nullptr) {
        serviceHost();
        silent.service();
    }
    EXPECT_EQ(findStuckPeer(*server), nullptr);
}

TEST_F(StuckPeers, ConnectingPeerWithoutACommandIsStuck) {
    TestClient silent(COMPANY | 1);
    silent.service();
    while (peerThatConnects() == nullptr) {
        serviceHost();
        silent.service();
    }
    ENetPeer* const connecting = peerThatConnects();
    loseCommands(*connecting);
    EXPECT_EQ(findStuckPeer(*server), connecting);
}

TEST_F(StuckPeers, LeavingPeerWithoutACommandIsStuck) {
    TestClient& client = connect(COMPANY | 1);
    ENetPeer& peer = peerOf(client);
    enet_peer_disconnect(&peer, 0);
    EXPECT_EQ(findStuckPeer(*server), nullptr);
    loseCommands(peer);
    EXPECT_EQ(findStuckPeer(*server), &peer);
    enet_peer_reset(&peer);
    clientConn.fill(ClientSlot{});
}

TEST_F(StuckPeers, LeavingPeerIsGivenBackAsDisconnectedAfterALackOfMemory) {
    connect(COMPANY | 1);
    TestClient& client = connect(COMPANY | 1);
    ENetPeer& peer = peerOf(client);
    enet_peer_disconnect(&peer, 0);
    loseCommands(peer);
    printed();
    const std::size_t reports = core().statusReports.size();

    serviceHost();
    EXPECT_EQ(peer.state, ENET_PEER_STATE_DISCONNECTING) << "nobody told of a lack of memory";
    EXPECT_EQ(connectCount, 2);

    toldLackOfMemory = true;
    EXPECT_EQ(serviceHost(), 0);
    EXPECT_EQ(peer.state, ENET_PEER_STATE_DISCONNECTED);
    EXPECT_EQ(connectCount, 1);
    EXPECT_NE(clientConn[0].peer, nullptr);
    EXPECT_EQ(clientConn[1].peer, nullptr);
    EXPECT_EQ(clientConn[1].protocolVersion, 0U);
    EXPECT_EQ(core().statusReports.size(), reports + 1);
    EXPECT_EQ(core().statusReports.back(), (StatusReport{1, std::nullopt, false}));
    EXPECT_EQ(printed(), "Client 127.0.0.1:" + std::to_string(client.port()) + " disconnected\n");
    EXPECT_EQ(findStuckPeer(*server), nullptr);
    EXPECT_EQ(slotOf(connect(COMPANY | 1)), 1) << "the slot is free for the next client";
}

TEST_F(StuckPeers, ConnectingPeerIsGivenBackWithoutAWordAfterALackOfMemory) {
    TestClient silent(COMPANY | 1);
    silent.service();
    while (peerThatConnects() == nullptr) {
        serviceHost();
        silent.service();
    }
    ENetPeer& connecting = *peerThatConnects();
    loseCommands(connecting);
    toldLackOfMemory = true;
    EXPECT_EQ(serviceHost(), 0);
    EXPECT_EQ(connecting.state, ENET_PEER_STATE_DISCONNECTED);
    EXPECT_EQ(connectCount, 0) << "it had not been counted yet";
    EXPECT_TRUE(core().statusReports.empty());
    EXPECT_EQ(printed(), "");
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
    std::vector<char> block(wire::RAW_BUFFER_LENGTH, 'a');
    processBuffer(block.data(), static_cast<int>(block.size()), true);
    shiftClock(std::chrono::seconds(31));
    stranger.send(acknowledgement(patient.channel, patient.number, patient.sentTime) +
                  reliable(2, controlMessage(2)));
    EXPECT_EQ(serviceHost(), 1);
    ASSERT_EQ(connectCount, 0);
    EXPECT_EQ(peerOf(stranger).state, ENET_PEER_STATE_DISCONNECTED);
    ASSERT_TRUE(enet_list_empty(&server->dispatchQueue));
    tell(connect(COMPANY | 1), controlMessage(2));
}

TEST_F(StuckPeers, ConnectedPeerWithNothingToSayIsNotStuck) {
    TestClient& client = connect(COMPANY | 1);
    loseCommands(peerOf(client));
    EXPECT_EQ(findStuckPeer(*server), nullptr);
}

}  // namespace
