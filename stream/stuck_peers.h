#pragma once

#include <enet/enet.h>

/// How long a peer may acknowledge nothing of what it was sent. ENet itself gives it up after 30 s,
/// but looks again only when it sends something again, which by the peer's own words can be late.
constexpr enet_uint32 LONGEST_SILENCE_MS = 40000;

/// Returns a peer that ENet would keep for longer than its connection lasts, or null: one that
/// waits for the answer to a command which ENet had no memory to queue, since time-outs are kept
/// with the commands; one that said good-bye and wants an acknowledgement, which ENet has no memory
/// for, or cannot give because the good-bye names no sending time; or one that has been silent for
/// too long. Thread: capture, outside of calls of ENet. Realtime-safe: yes.
ENetPeer* findStuckPeer(ENetHost& host);

/// Takes a peer whose connection has ended out of the host's dispatch queue. ENet leaves it there
/// when it times out in the very service call in which a message of it came; linked a second time
/// for the next client, it would make a ring of the queue, in which ENet turns for ever.
/// Thread: capture, outside of calls of ENet. Realtime-safe: yes.
void unlinkFromDispatch(ENetHost& host, const ENetPeer& peer);
