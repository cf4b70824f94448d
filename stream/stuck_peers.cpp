#include "stream/stuck_peers.h"

#include <algorithm>

#include <enet/time.h>

#include "stream/enet_unsent.h"

namespace {

/// Whether ENet holds a command that the other side has to acknowledge.
bool awaitsAnswer(ENetPeer& peer) {
    bool found = !enet_list_empty(&peer.sentReliableCommands);
    visitWaitingReliable(peer, [&found](ENetOutgoingCommand&) { found = true; });
    return found;
}

/// Since when there was something to acknowledge and nothing was; 0: there is nothing.
enet_uint32 silentSince(const ENetPeer& peer) {
    enet_uint32 since = peer.earliestTimeout;  // Of what was sent more than once.
    if (since == 0 &&
        peer.sentReliableCommands.sentinel.next != &peer.sentReliableCommands.sentinel) {
        since =
            reinterpret_cast<const ENetOutgoingCommand*>(peer.sentReliableCommands.sentinel.next)
                ->sentTime;
    }
    const bool answeredSince =
        peer.lastReceiveTime != 0 && since != 0 && ENET_TIME_LESS(since, peer.lastReceiveTime);
    return answeredSince ? peer.lastReceiveTime : since;
}

bool isSilent(const ENetPeer& peer) {
    const enet_uint32 since = silentSince(peer);
    return since != 0 && ENET_TIME_DIFFERENCE(peer.host->serviceTime, since) >= LONGEST_SILENCE_MS;
}

bool isStuck(ENetPeer& peer) {
    switch (peer.state) {
        case ENET_PEER_STATE_DISCONNECTED:
        case ENET_PEER_STATE_ZOMBIE:
            return false;
        case ENET_PEER_STATE_ACKNOWLEDGING_CONNECT:
        case ENET_PEER_STATE_DISCONNECTING:
            return !awaitsAnswer(peer) || isSilent(peer);
        case ENET_PEER_STATE_ACKNOWLEDGING_DISCONNECT:
            return enet_list_empty(&peer.acknowledgements);
        default:
            return isSilent(peer);
    }
}

}  // namespace

ENetPeer* findStuckPeer(ENetHost& host) {
    ENetPeer* const end = host.peers + host.peerCount;
    ENetPeer* const found = std::find_if(host.peers, end, isStuck);
    return found != end ? found : nullptr;
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
