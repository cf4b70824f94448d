#pragma once

#include <enet/enet.h>

/// Makes the kernel drop datagrams that ENet cannot use: longer than 4096 bytes, or too short for
/// ENet's header. ENet stops reading at an empty one, and some releases end a service call with an
/// error at each long one, so that anybody could keep the clients' acknowledgements from being
/// read. Returns false when the kernel refuses, and the host then works as before.
/// Thread: network.
bool limitDatagrams(const ENetHost& host);
