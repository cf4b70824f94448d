#include "stream/event_backlog.h"

#include <cassert>

#include "stream/capture_thread.h"

namespace {

constexpr enet_uint32 SERVICE_TIMEOUT_MS = 1;

void dropOldestMessages(ENetPeer& peer) {
    for (std::size_t waiting = enet_list_size(&peer.dispatchedCommands);
         waiting > MAX_WAITING_MESSAGES; --waiting) {
        enet_uint8 channel = 0;
        if (ENetPacket* const packet = enet_peer_receive(&peer, &channel)) {
            enet_packet_destroy(packet);
        }
    }
}

void moveToFront(ENetList& queue, ENetList& peers) {
    if (!enet_list_empty(&peers)) {
        enet_list_move(enet_list_begin(&queue), enet_list_begin(&peers),
                       enet_list_previous(enet_list_end(&peers)));
    }
}

/// Services the network although events wait, by hiding those peers from ENet meanwhile. Without
/// `event` ENet would read too, but lose the rest of a datagram that completes a connection, such
/// as a client's first request.
int serviceBesidesBacklog(ENetHost& host, ENetEvent& event) {
    ENetList waiting;
    enet_list_clear(&waiting);
    moveToFront(waiting, host.dispatchQueue);
    const int result = enet_host_service(&host, &event, 0);
    moveToFront(host.dispatchQueue, waiting);
    return result;
}

int takeEvent(ENetHost& host, ENetEvent& event) {
    static bool backlogIsNext = false;
    if (enet_list_empty(&host.dispatchQueue)) {
        return enet_host_service(&host, &event, SERVICE_TIMEOUT_MS);
    }
    if (!backlogIsNext) {
        const int result = serviceBesidesBacklog(host, event);
        if (result != 0) {
            backlogIsNext = true;
            return result;
        }
    }
    backlogIsNext = false;
    return enet_host_check_events(&host, &event);
}

}  // namespace

void limitMessages(ENetHost& host) {
    assert(!captureThread.elsewhere());
    host.maximumPacketSize = MAX_MESSAGE_BYTES;
    host.maximumWaitingData = MAX_WAITING_BYTES;
}

int nextEvent(ENetHost& host, ENetEvent& event) {
    assert(captureThread.here());
    const int result = takeEvent(host, event);
    if (!enet_list_empty(&host.dispatchQueue)) {
        for (ENetPeer* peer = host.peers; peer < host.peers + host.peerCount; ++peer) {
            dropOldestMessages(*peer);
        }
    }
    return result;
}
