#pragma once

#include <enet/enet.h>

/// What is sent to a machine that has left the network waits in the kernel, which asks for its
/// hardware address in vain for some seconds; up to 208 KiB for each address, and all in the send
/// buffer of the one socket. When that is full, ENet takes what it cannot send for sent, and nobody
/// hears anything.

/// Whether a peer has acknowledged nothing for a good second, though ENet asks half a second after
/// its last acknowledgement at the latest: then it is to be sent no best-effort sound. A round trip
/// of up to 2 s is waited for. Goes by the time of the last service call.
/// Thread: capture. Realtime-safe: yes.
bool seemsVanished(const ENetPeer& peer);

/// Asks such a peer four times a second whether it is back. ENet itself asks at growing intervals,
/// and would hear of a short absence only after another of its length.
/// Thread: capture. Realtime-safe: yes, but for ENet's allocation.
void askVanished(ENetPeer& peer);

/// Gives the host's socket a send buffer that holds what may wait for ten such addresses, or as
/// much of that as the kernel grants. Thread: network.
void enlargeSendBuffer(const ENetHost& host);
