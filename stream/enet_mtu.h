#pragma once

#include <cassert>

#include <enet/enet.h>

#include "stream/capture_thread.h"

/// Largest datagram payload that we let ENet send, in bytes: with ENet's own headers a raw audio
/// packet of 1368 bytes then stays one datagram instead of two fragments.
constexpr enet_uint32 AUDIO_MTU = 1400;

/// Raises a smaller MTU of a new host. Thread: network.
inline void raiseHostMtu(ENetHost& host) {
    assert(!captureThread.elsewhere());
    if (host.mtu < AUDIO_MTU) {
        host.mtu = AUDIO_MTU;
    }
}

/// Raises a smaller MTU that a connecting client negotiated: ENet always receives up to 4096 bytes.
/// Thread: capture. Realtime-safe: yes.
inline void raisePeerMtu(ENetPeer& peer) {
    assert(captureThread.here());
    if (peer.mtu < AUDIO_MTU) {
        peer.mtu = AUDIO_MTU;
    }
}
