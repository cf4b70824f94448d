#pragma once

#include <enet/enet.h>

/// How long a peer may acknowledge nothing. ENet disconnects it after 30 s, but checks only when it
/// resends, and the peer's answers determine when that is.
constexpr enet_uint32 MAX_SILENCE_MS = 40000;

/// Returns a peer that ENet would keep for too long, or null. Such a peer waits for the answer to a
/// command that ENet had no memory to queue (the time-out is part of the command); or has
/// disconnected, but ENet has no memory for the acknowledgement or lacks the sending time for it;
/// or has been silent for too long. Thread: capture, outside of calls of ENet. Realtime-safe: yes.
ENetPeer* findStuckPeer(ENetHost& host);

/// Removes a peer whose connection has ended from the host's dispatch queue. ENet leaves it there
/// when it times out in the service call that received its message. Linked again for the next
/// client, it would turn the queue into an endless ring. Thread: capture, outside of calls of ENet.
/// Realtime-safe: yes.
void unlinkFromDispatch(ENetHost& host, const ENetPeer& peer);
