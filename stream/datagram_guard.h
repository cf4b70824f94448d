#pragma once

#include <cstddef>

#include <enet/enet.h>

/// Commands that ENet reads of one datagram; it packs at most 32 into one itself.
constexpr std::size_t MAX_DATAGRAM_COMMANDS = 64;

/// Commands of one kind that wait in a channel until an earlier one has come, before the next
/// datagram is read. ENet walks through all of them for each command.
constexpr std::size_t MAX_EARLY_COMMANDS = 256;

/// Shows ENet of each received datagram only what costs its sender's own connection and nobody
/// else's: nothing of one with too many commands, with a message of more pieces than bytes or from
/// port 0, and no further command that would have to wait once there are enough. What is not read
/// is not acknowledged, so that a reliable client sends it again. Messages of more than
/// MAX_MESSAGE_BYTES are cut to that length. Who answers as a server does is no client, and seems
/// to say good-bye. Thread: network.
void guardDatagrams(ENetHost& host);
