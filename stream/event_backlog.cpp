#include "stream/event_backlog.h"

#include <algorithm>

namespace {

void dropOldestMessages(ENetPeer& peer) {
    for (std::size_t waiting = enet_list_size(&peer.dispatchedCommands);
         waiting > MAX_WAITING_MESSAGES; --waiting) {
        enet_uint8 channel = 0;
        if (ENetPacket* const packet = enet_peer_receive(&peer, &channel)) {
            enet_packet_destroy(packet);
        }
    }
}

}  // namespace

void limitMessages(ENetHost& host) {
    host.maximumPacketSize = MAX_MESSAGE_BYTES;
    host.maximumWaitingData = MAX_WAITING_BYTES;
}

int readNetworkDespiteBacklog(ENetHost& host) {
    if (enet_list_empty(&host.dispatchQueue)) {
        return 0;
    }
    const int result = enet_host_service(&host, nullptr, 0);
    for (ENetPeer* peer = host.peers; peer < host.peers + host.peerCount; ++peer) {
        dropOldestMessages(*peer);
    }
    return std::min(result, 0);
}
