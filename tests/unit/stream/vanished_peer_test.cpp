// Clients that vanish from the network.

#include "stream/vanished_peer.h"

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "stream/client_table.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/unit/stream/send_path_fixture.h"

namespace {

/// A peer with a command under way or none, at a time that the test sets.
class UnansweredPeer : public testing::Test {
  protected:
    UnansweredPeer() {
        peer.host = host.get();
        enet_list_clear(&peer.sentReliableCommands);
        pass(NOW);
    }

    void pass(enet_uint32 now) { host->serviceTime = now; }

    void send(enet_uint32 time) {
        commands.push_back(std::make_unique<ENetOutgoingCommand>());
        commands.back()->sentTime = time;
        enet_list_insert(enet_list_end(&peer.sentReliableCommands), commands.back().get());
    }

    static constexpr enet_uint32 NOW = 1000000;
    const std::unique_ptr<ENetHost> host = std::make_unique<ENetHost>();
    ENetPeer peer = {};
    std::vector<std::unique_ptr<ENetOutgoingCommand>> commands;
};

TEST_F(UnansweredPeer, ThatWasAskedNothingIsThereHoweverLongItIsSilent) {
    peer.lastReceiveTime = 1;  // The server itself has stood still since.
    EXPECT_FALSE(seemsVanished(peer));
}

TEST_F(UnansweredPeer, HasVanishedAGoodSecondAfterItsLastAnswer) {
    // ENet asked half a second after that, at NOW, and has repeated it since.
    peer.earliestTimeout = NOW;
    send(NOW + 600);
    pass(NOW + 499);
    EXPECT_FALSE(seemsVanished(peer));
    pass(NOW + 749);
    EXPECT_FALSE(seemsVanished(peer));
    pass(NOW + 750);
    EXPECT_TRUE(seemsVanished(peer));
    peer.earliestTimeout = 0;  // As an acknowledgement of anything leaves it.
    EXPECT_FALSE(seemsVanished(peer));
}

TEST_F(UnansweredPeer, BehindALongRoundTripIsThere) {
    send(NOW);
    send(NOW + 1990);
    pass(NOW + 1999);
    EXPECT_FALSE(seemsVanished(peer)) << "ENet itself still waits for this one";
}

TEST_F(UnansweredPeer, ThatMadeEnetBelieveInEndlessRoundTripsHasVanishedAfterTwoSeconds) {
    send(NOW);
    commands.back()->roundTripTimeout = 60000;
    pass(NOW + 2000);
    EXPECT_TRUE(seemsVanished(peer));
}

TEST_F(UnansweredPeer, IsJudgedAcrossTheWrapOfEnetsClock) {
    constexpr enet_uint32 LAST = std::numeric_limits<enet_uint32>::max();
    peer.earliestTimeout = LAST - 100;
    pass(500);
    EXPECT_FALSE(seemsVanished(peer));
    pass(700);
    EXPECT_TRUE(seemsVanished(peer));
}

class VanishedClient : public SendPath {
  protected:
    /// Sends blocks until `done` returns true; fails after 10 s.
    void processUntil(const std::function<bool()>& done) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        do {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            sentBefore = countOf(Call::EnetPeerSend);
            process(RAW);
        } while (!done());
    }

    /// Sends blocks until one reaches this many clients.
    void processUntilSentTo(int clientCount) {
        processUntil([this, clientCount] {
            return countOf(Call::EnetPeerSend) - sentBefore == clientCount;
        });
    }

    int sentBefore = 0;
};

TEST_F(VanishedClient, IsSentBestEffortSoundAgainOnceItAnswers) {
    TestClient& client = stream(BEST_EFFORT);
    stream(RELIABLE);  // It answers nothing either.
    processUntilSentTo(2);
    const enet_uint32 lastAnswer = clientConn[0].peer->lastReceiveTime;
    processUntilSentTo(1);
    EXPECT_GE(server->serviceTime - lastAnswer, 1000U);
    EXPECT_EQ(clientConn[0].peer->state, ENET_PEER_STATE_CONNECTED);
    const std::size_t heard = client.packets.size();
    pumpFor(50);
    processUntilSentTo(2);
    pumpUntil([&client, heard] { return client.packets.size() > heard; });
}

/// Takes what has arrived at a client from its socket, as if it had been lost; returns its count.
int lose(const TestClient& client) {
    int lost = 0;
    for (char room[4096]; ::recv(client.host->socket, room, sizeof room, MSG_DONTWAIT) > 0;) {
        ++lost;
    }
    return lost;
}

TEST_F(VanishedClient, IsAskedAgainAndAgainWhetherItIsBack) {
    const TestClient& client = stream(BEST_EFFORT);
    processUntilSentTo(1);
    processUntilSentTo(0);
    lose(client);
    int asked = 0;
    processUntil([&client, &asked] { return (asked += lose(client)) >= 8; });
    EXPECT_EQ(connectCount, 1) << "it was given up before";
}

}  // namespace
