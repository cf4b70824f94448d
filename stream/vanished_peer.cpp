#include "stream/vanished_peer.h"

#include <cassert>

#include "stream/capture_thread.h"
#include "stream/client_table.h"

namespace {

/// How long a command may have gone unanswered that has had to be sent again.
constexpr enet_uint32 PATIENCE_MS = 750;

/// How long ENet may believe that a round trip takes. A peer can make it believe in any.
constexpr enet_uint32 LONGEST_ROUND_TRIP_MS = 2000;

constexpr enet_uint32 ASKING_INTERVAL_MS = 250;

/// The kernel's default of net.ipv4.neigh.default.unres_qlen_bytes.
constexpr int WAITING_FOR_AN_ADDRESS = 208 * 1024;

}  // namespace

bool seemsVanished(const ENetPeer& peer) {
    assert(captureThread.here());
    const enet_uint32 now = peer.host->serviceTime;
    if (peer.earliestTimeout != 0) {
        return now - peer.earliestTimeout >= PATIENCE_MS;
    }
    if (enet_list_empty(&peer.sentReliableCommands)) {
        return false;
    }
    const auto& oldest =
        *reinterpret_cast<const ENetOutgoingCommand*>(peer.sentReliableCommands.sentinel.next);
    return now - oldest.sentTime >= LONGEST_ROUND_TRIP_MS;
}

void askVanished(ENetPeer& peer) {
    assert(captureThread.here());
    if (peer.host->serviceTime - peer.lastSendTime >= ASKING_INTERVAL_MS) {
        enet_peer_ping(&peer);
    }
}

void enlargeSendBuffer(const ENetHost& host) {
    assert(!captureThread.elsewhere());
    // The kernel doubles what it is asked for.
    enet_socket_set_option(host.socket, ENET_SOCKOPT_SNDBUF,
                           static_cast<int>(CLIENT_SLOTS) * WAITING_FOR_AN_ADDRESS / 2);
}
