#pragma once

#include <enet/enet.h>

/// Returns a peer that waits for the answer to a command which ENet had no memory to queue, or
/// null. Such a peer has no time-out, since those are kept with the commands: it would never be
/// free again. Thread: capture, outside of calls of ENet. Realtime-safe: yes.
ENetPeer* findStuckPeer(ENetHost& host);
