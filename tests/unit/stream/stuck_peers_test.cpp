// Peers for whose next command ENet had no memory.

#include "stream/stuck_peers.h"

#include "stream/client_table.h"
#include "stream/network_host.h"
#include "stream/service_step.h"
#include "tests/fakes/live_server.h"

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

TEST_F(StuckPeers, ConnectedPeerWithNothingToSayIsNotStuck) {
    TestClient& client = connect(COMPANY | 1);
    loseCommands(peerOf(client));
    EXPECT_EQ(findStuckPeer(*server), nullptr);
}

}  // namespace
