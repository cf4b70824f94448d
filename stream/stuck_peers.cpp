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

void unlinkFromDispatch(ENetHost& host, const ENetPeer& peer) {
    for (ENetListIterator node = enet_list_begin(&host.dispatchQueue);
         node != enet_list_end(&host.dispatchQueue); node = enet_list_next(node)) {
        if (node == &peer.dispatchList) {
            enet_list_remove(node);
            return;
        }
    }
}
