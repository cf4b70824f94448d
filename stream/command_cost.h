#pragma once

#include <cstddef>

#include <enet/enet.h>

/// How far ahead of the last completed one a channel's reliable command may be: one of ENet's
/// windows.
constexpr enet_uint16 MAX_EARLY_RELIABLE = ENET_PEER_RELIABLE_WINDOW_SIZE;

/// How many unreliable commands may wait in a channel for a reliable one.
constexpr std::size_t MAX_EARLY_UNRELIABLE = 128;

/// How many early commands of all clients may wait before each channel may only have a few. The
/// allocator would keep the memory of more when the clients have left.
constexpr std::size_t MAX_EARLY_TOTAL = ENET_PEER_RELIABLE_WINDOW_SIZE;
constexpr std::size_t MAX_EARLY_WHEN_FULL = 32;

/// How many commands of a peer ENet may walk through, at once and per millisecond on average, to
/// find the place of early commands and those that acknowledgements name.
constexpr std::size_t MAX_STEPS = 500000;
constexpr std::size_t STEPS_PER_MS = 1000;

/// Whether a received command makes ENet store, or walk through, more than one client may cost.
/// ENet must not read such a command; as it is not acknowledged, a reliable client sends it again.
/// `command` is complete except for its data. Counts the steps of the commands that it accepts.
/// Thread: capture, before ENet reads the datagram. Realtime-safe: yes.
bool costsTooMuch(ENetPeer& peer, const enet_uint8* command);
