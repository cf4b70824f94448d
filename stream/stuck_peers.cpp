#include "stream/stuck_peers.h"

#include "stream/enet_unsent.h"

namespace {

/// Whether ENet holds a command that the other side has to acknowledge.
bool awaitsAnswer(ENetPeer& peer) {
    bool found = !enet_list_empty(&peer.sentReliableCommands);
    visitWaitingReliable(peer, [&found](ENetOutgoingCommand&) { found = true; });
    return found;
}

}  // namespace

ENetPeer* findStuckPeer(ENetHost& host) {
    for (ENetPeer* peer = host.peers; peer < host.peers + host.peerCount; ++peer) {
        const bool mustBeAnswered = peer->state == ENET_PEER_STATE_ACKNOWLEDGING_CONNECT ||
                                    peer->state == ENET_PEER_STATE_DISCONNECTING;
        if (mustBeAnswered && !awaitsAnswer(*peer)) {
            return peer;
        }
    }
    return nullptr;
}
