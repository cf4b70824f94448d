#pragma once

#include <cstddef>

#include <enet/enet.h>

/// What a client may have waiting at the server: messages, and their bytes. One message is handled
/// in each service step, some 240 a second, so this is about a second's worth.
constexpr std::size_t MAX_WAITING_MESSAGES = 256;
constexpr std::size_t MAX_WAITING_BYTES = std::size_t{64} * 1024;

/// Longest message that is taken from a client; control messages have less than 300 bytes.
constexpr std::size_t MAX_MESSAGE_BYTES = std::size_t{16} * 1024;

/// Lets ENet take no more from a client than the bounds above; a reliable client sends again what
/// found no room. Thread: network.
void limitMessages(ENetHost& host);

/// As long as events wait, a service call hands out the next one and leaves the network alone. A
/// client that sends messages faster than they are handled would so keep everybody's
/// acknowledgements from being read. When events wait, this reads and sends without handling any,
/// and drops the oldest of too many messages of one client. Negative when ENet reports an error,
/// else 0. Takes as long as ENet's own reading of up to 256 datagrams. Thread: capture.
int readNetworkDespiteBacklog(ENetHost& host);
