#pragma once

#include <cstddef>

#include <enet/enet.h>

/// Commands that ENet reads of one datagram; it packs at most 32 into one itself.
constexpr std::size_t MAX_DATAGRAM_COMMANDS = 64;

/// Lets ENet read only those parts of received datagrams that cost nobody but their sender: nothing
/// of a datagram with too many commands, with a message of more fragments than bytes or from port
/// 0, and no commands that cost too much (stream/command_cost.h). Messages are cut to
/// MAX_MESSAGE_BYTES. A sender that answers as a server does is treated as if it disconnected.
/// Thread: network.
void guardDatagrams(ENetHost& host);
