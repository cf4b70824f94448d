#pragma once

#include <enet/enet.h>

/// Packets for a machine that has left the network wait in the kernel, which asks for its hardware
/// address for some seconds: up to 208 KiB for each address, all in the send buffer of the one
/// socket. When that is full, packets to all clients are lost.

/// Whether a peer has acknowledged nothing for more than a second, though ENet pings it after half
/// a second; it then gets no best-effort sound. Waits for a round trip of up to 2 s. Uses the time
/// of the last service call. Thread: capture. Realtime-safe: yes.
bool seemsVanished(const ENetPeer& peer);

/// Pings such a peer four times a second. ENet itself resends at growing intervals, and would
/// notice the end of a short absence late. Thread: capture. Realtime-safe: yes, except for ENet's
/// allocation.
void pingVanished(ENetPeer& peer);

/// Sets the host's send buffer to what may wait for ten such addresses, or as much as the kernel
/// allows. Thread: network.
void enlargeSendBuffer(const ENetHost& host);
