#include "tests/soak/checking_core.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <unistd.h>

#include <enet/enet.h>

#include "stream/client_table.h"
#include "stream/service_step.h"

namespace {

constexpr long MAX_FAULTS_SHOWN = 20;
constexpr long BLOCKS_TO_SETTLE = 200;

// Even a minute at this pace, until connections without a client have timed out, takes a quarter
// of the blocks before the wraps only.
constexpr long BLOCKS_OF_SILENCE = 2000;
constexpr useconds_t SILENT_PAUSE_US = 5000;

/// True for a peer whose connect event has been handled and whose disconnect event has not.
bool isCounted(const ENetPeer& peer) {
    return peer.state >= ENET_PEER_STATE_CONNECTED;
}

/// True for a peer that may be in a slot. A zombie's end has not been reported yet.
bool mayHaveSlot(const ENetPeer& peer) {
    return isCounted(peer) && peer.state != ENET_PEER_STATE_DISCONNECTING;
}

bool sameAddress(const ENetPeer& a, const ENetPeer& b) {
    return a.address.host == b.address.host && a.address.port == b.address.port;
}

/// By address: a client that comes back from the same port takes the place of its old connection.
bool hasSlot(const ENetPeer& peer) {
    return std::any_of(clientConn.begin(), clientConn.end(), [&peer](const ClientSlot& slot) {
        return slot.peer != nullptr && sameAddress(*slot.peer, peer);
    });
}

bool isTwice(const ENetPeer* peer) {
    return std::count_if(clientConn.begin(), clientConn.end(),
                         [peer](const ClientSlot& slot) { return slot.peer == peer; }) > 1;
}

}  // namespace

void CheckingCore::SetAudioCaptureActive() {
    int counted = 0;
    bool nobody = true;
    for (const ENetPeer* peer = server->peers; peer < server->peers + server->peerCount; ++peer) {
        counted += isCounted(*peer) ? 1 : 0;
        nobody = nobody && peer->state == ENET_PEER_STATE_DISCONNECTED;
        require(peer->state != ENET_PEER_STATE_CONNECTED || hasSlot(*peer),
                "a connected client has no slot");
    }
    require(connectCount == counted, "the count is not that of the connections");
    for (const ClientSlot& slot : clientConn) {
        require(slot.peer == nullptr || mayHaveSlot(*slot.peer), "a slot keeps a dead peer");
        require(slot.peer == nullptr || !isTwice(slot.peer), "a peer has two slots");
    }
    noteIdle(nobody);
    waitForClients(nobody);
    VelantrixServerNoGUI::SetAudioCaptureActive();
}

void CheckingCore::noteIdle(bool nobody) {
    idleBlocks = nobody ? idleBlocks + 1 : 0;
    if (idleBlocks == BLOCKS_TO_SETTLE) {
        std::fprintf(stderr, "soak_server: %zu bytes in use with nobody connected\n",
                     ::mallinfo2().uordblks);
    }
}

/// Without clients the capture would race to the wraps with nobody there to hear them. A client
/// that left in silence counts as connected until its time is over.
void CheckingCore::waitForClients(bool nobody) {
    const bool silent = server->totalReceivedPackets == receivedBefore;
    receivedBefore = server->totalReceivedPackets;
    silentBlocks = silent ? silentBlocks + 1 : 0;
    if (nobody || silentBlocks > BLOCKS_OF_SILENCE) {
        ::usleep(SILENT_PAUSE_US);
    }
}

void CheckingCore::require(bool condition, const char* text) {
    if (!condition && faultCount.fetch_add(1) < MAX_FAULTS_SHOWN) {
        std::fprintf(stderr, "soak_server: %s\n", text);
    }
}
