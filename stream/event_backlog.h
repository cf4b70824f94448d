#pragma once

#include <cstddef>

#include <enet/enet.h>

/// What a client may have waiting at the server: messages, and their bytes. One message is handled
/// in each service step, some 240 a second, so this is about a second's worth.
constexpr std::size_t MAX_WAITING_MESSAGES = 256;
constexpr std::size_t MAX_WAITING_BYTES = std::size_t{64} * 1024;

/// How much of a client's message is kept; control messages have less than 300 bytes.
constexpr std::size_t MAX_MESSAGE_BYTES = std::size_t{16} * 1024;

/// Lets ENet take no more from a client than the bounds above; a reliable client sends again what
/// found no room. Thread: network.
void limitMessages(ENetHost& host);

/// Takes the next event, as enet_host_service does with a time-out of 1 ms, and reads the network
/// also while events wait. ENet hands those out first and leaves the network alone as long as there
/// are any: a client that sends messages faster than they are handled would so keep everybody's
/// acknowledgements from being read. An event that the network brings and one that waits take
/// turns. Of too many messages of one client the oldest are dropped. Negative when ENet reports an
/// error, 0 without an event, else positive. Takes as long as ENet's own reading of up to 256
/// datagrams. Thread: capture.
int nextEvent(ENetHost& host, ENetEvent& event);
