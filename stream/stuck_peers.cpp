#include "stream/stuck_peers.h"

#include <cassert>

#include "stream/capture_thread.h"
#include "stream/enet_unsent.h"

namespace {

/// Whether ENet holds a command that the client has to acknowledge.
bool awaitsAnswer(ENetPeer& peer) {
    bool found = !enet_list_empty(&peer.sentReliableCommands);
    visitWaitingReliable(peer, [&found](ENetOutgoingCommand&) { found = true; });
    return found;
}

/// Whether commands have waited too long for an acknowledgement.
bool isSilent(ENetPeer& peer) {
    enet_uint32 since = peer.earliestTimeout;  // Of the oldest command that was sent again.
    if (since == 0) {
        if (enet_list_empty(&peer.sentReliableCommands)) {
            return false;
        }
        since = static_cast<ENetOutgoingCommand*>(enet_list_front(&peer.sentReliableCommands))
                    ->sentTime;
    }
    return peer.host->serviceTime - since >= MAX_SILENCE_MS;
}

bool isStuck(ENetPeer& peer) {
    switch (peer.state) {
        case ENET_PEER_STATE_ACKNOWLEDGING_CONNECT:
        case ENET_PEER_STATE_DISCONNECTING:
            return !awaitsAnswer(peer) || isSilent(peer);
        case ENET_PEER_STATE_ACKNOWLEDGING_DISCONNECT:
            return enet_list_empty(&peer.acknowledgements);
        case ENET_PEER_STATE_ZOMBIE:
            return false;
        default:
            return isSilent(peer);
    }
}

}  // namespace

ENetPeer* findStuckPeer(ENetHost& host) {
    assert(captureThread.here());
    for (ENetPeer* peer = host.peers; peer < host.peers + host.peerCount; ++peer) {
        if (peer->state != ENET_PEER_STATE_DISCONNECTED && isStuck(*peer)) {
            return peer;
        }
    }
    return nullptr;
}

void unlinkFromDispatch(ENetHost& host, const ENetPeer& peer) {
    assert(captureThread.here());
    for (ENetListIterator node = enet_list_begin(&host.dispatchQueue);
         node != enet_list_end(&host.dispatchQueue); node = enet_list_next(node)) {
        if (node == &peer.dispatchList) {
            enet_list_remove(node);
            return;
        }
    }
}
