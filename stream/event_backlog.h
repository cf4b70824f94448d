#pragma once

#include <cstddef>

#include <enet/enet.h>

/// How many messages, and bytes of them, of a client may wait at the server. Each service step
/// handles one message, about 240 a second, so these last about a second.
constexpr std::size_t MAX_WAITING_MESSAGES = 256;
constexpr std::size_t MAX_WAITING_BYTES = std::size_t{64} * 1024;

/// Maximum length of a client's message; control messages have less than 300 bytes.
constexpr std::size_t MAX_MESSAGE_BYTES = std::size_t{16} * 1024;

/// Makes ENet accept no more from a client than that; a reliable client sends the rest again.
/// Thread: network.
void limitMessages(ENetHost& host);

/// Takes the next event, as enet_host_service does with a time-out of 1 ms, but also reads the
/// network while events wait. ENet does not: a client that sends messages faster than they are
/// handled would keep all clients' acknowledgements from being read. New events and waiting ones
/// take turns. Of too many messages of one client the oldest are dropped. Negative when ENet
/// reports an error, 0 without an event, else positive. Takes as long as ENet needs to read up to
/// 256 datagrams. Thread: capture.
int nextEvent(ENetHost& host, ENetEvent& event);
