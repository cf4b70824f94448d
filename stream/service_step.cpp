#include "stream/service_step.h"

#include <cassert>

#include <enet/enet.h>

#include "app/base/console.h"
#include "stream/capture_thread.h"
#include "stream/client_table.h"
#include "stream/event_backlog.h"
#include "stream/stuck_peers.h"

ENetHost* server = nullptr;

namespace {

/// False for an event of another type.
bool handle(const ENetEvent& event) {
    switch (event.type) {
        case ENET_EVENT_TYPE_CONNECT:
            handleConnect(event);
            return true;
        case ENET_EVENT_TYPE_DISCONNECT:
            handleDisconnect(event);
            unlinkFromDispatch(*server, *event.peer);
            return true;
        case ENET_EVENT_TYPE_RECEIVE:
            handleReceive(event);
            return true;
        default:
            return false;
    }
}

/// Resets a peer that ENet would keep; at most one in each step.
void freeStuckPeer() {
    ENetPeer* const peer = findStuckPeer(*server);
    if (peer == nullptr) {
        return;
    }
    if (peer->state >= ENET_PEER_STATE_CONNECTED) {
        ENetEvent event = {};
        event.type = ENET_EVENT_TYPE_DISCONNECT;
        event.peer = peer;
        handle(event);
    }
    enet_peer_reset(peer);
}

int serviceOnce() {
    ENetEvent event = {};
    const int result = nextEvent(*server, event);
    if (result < 0) {
        consolePuts("Error returned from service call");
    }
    return result > 0 && !handle(event) ? 0 : result;
}

}  // namespace

int serviceHost() {
    assert(captureThread.here() && server != nullptr);
    const int result = serviceOnce();
    freeStuckPeer();
    return result;
}
