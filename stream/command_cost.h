#pragma once

#include <cstddef>

#include <enet/enet.h>

/// How far ahead of the last one that it completed a channel's reliable command may be: one of
/// ENet's windows. There is one for each number.
constexpr enet_uint16 MAX_EARLY_RELIABLE = ENET_PEER_RELIABLE_WINDOW_SIZE;

/// How many unreliable commands may wait in a channel for a reliable one when another comes.
constexpr std::size_t MAX_EARLY_UNRELIABLE = 128;

/// How many commands of all clients together may wait before each channel is held to a few. What
/// many clients could else let wait would stay with the allocator when they are gone.
constexpr std::size_t MAX_EARLY_OF_ALL = ENET_PEER_RELIABLE_WINDOW_SIZE;
constexpr std::size_t FEW_EARLY = 32;

/// How many commands of a peer ENet may walk through at once, and in each millisecond of the long
/// run, to find the place of early commands and those that acknowledgements name.
constexpr std::size_t MAX_STEPS = 500000;
constexpr std::size_t STEPS_PER_MS = 1000;

/// Whether a received command makes ENet keep, or walk through, more than one client's is worth.
/// ENet is then not to read it; as it is not acknowledged, a reliable client sends it again.
/// `command` is whole but for its data. Counts the steps of the others. Thread: capture, before
/// ENet reads the datagram. Realtime-safe: yes.
bool costsTooMuch(ENetPeer& peer, const enet_uint8* command);
