#pragma once

#include <cstddef>

#include <enet/enet.h>

/// Commands that ENet reads of one datagram; it packs at most 32 into one itself.
constexpr std::size_t MAX_DATAGRAM_COMMANDS = 64;

/// Shows ENet of each received datagram only what costs its sender's own connection and nobody
/// else's: nothing of one with too many commands, with a message of more pieces than bytes or from
/// port 0, and no commands that cost too much (stream/command_cost.h). Messages of more than
/// MAX_MESSAGE_BYTES are cut to that length. Who answers as a server does is no client, and seems
/// to say good-bye. Thread: network.
void guardDatagrams(ENetHost& host);
