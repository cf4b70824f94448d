#pragma once

#include <enet/enet.h>

/// Makes the kernel drop datagrams that ENet cannot use: longer than 4096 bytes, or too short for
/// ENet's header. ENet stops reading at an empty one, and in some releases at a long one, so a
/// flood of them would keep the clients' acknowledgements from being read. Returns false when the
/// kernel refuses; the host then works without the limit. Thread: network.
bool limitDatagrams(const ENetHost& host);
