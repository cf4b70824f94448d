#include "stream/vanished_peer.h"

#include <cassert>

#include "stream/capture_thread.h"
#include "stream/client_table.h"

namespace {

/// How long a resent command may be unacknowledged.
constexpr enet_uint32 ANSWER_TIMEOUT_MS = 750;

/// Maximum round-trip time to wait for; a peer can fake any.
constexpr enet_uint32 MAX_ROUND_TRIP_MS = 2000;

constexpr enet_uint32 PING_INTERVAL_MS = 250;

/// The kernel's default of net.ipv4.neigh.default.unres_qlen_bytes.
constexpr int MAX_UNRESOLVED_BYTES = 208 * 1024;

}  // namespace

bool seemsVanished(const ENetPeer& peer) {
    assert(captureThread.here());
    const enet_uint32 now = peer.host->serviceTime;
    if (peer.earliestTimeout != 0) {
        return now - peer.earliestTimeout >= ANSWER_TIMEOUT_MS;
    }
    if (enet_list_empty(&peer.sentReliableCommands)) {
        return false;
    }
    const auto& oldest =
        *reinterpret_cast<const ENetOutgoingCommand*>(peer.sentReliableCommands.sentinel.next);
    return now - oldest.sentTime >= MAX_ROUND_TRIP_MS;
}

void pingVanished(ENetPeer& peer) {
    assert(captureThread.here());
    if (peer.host->serviceTime - peer.lastSendTime >= PING_INTERVAL_MS) {
        enet_peer_ping(&peer);
    }
}

void enlargeSendBuffer(const ENetHost& host) {
    assert(!captureThread.elsewhere());
    // The kernel doubles the value.
    enet_socket_set_option(host.socket, ENET_SOCKOPT_SNDBUF,
                           static_cast<int>(CLIENT_SLOTS) * MAX_UNRESOLVED_BYTES / 2);
}
