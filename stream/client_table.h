#pragma once

#include <array>
#include <cstdint>
#include <ctime>

#include <enet/enet.h>

constexpr std::size_t CLIENT_SLOTS = 10;

/// One client that may receive audio. A free slot is all zero.
struct ClientSlot {
    std::uint32_t protocolVersion = 0;  ///< 0: an old client that is never actively disconnected.
    std::uint8_t multiClient = 0;       ///< 0: dropped as soon as another client connects.
    std::uint8_t reliable = 0;          ///< 1: reliable delivery, 0: best-effort.
    std::uint32_t rateCode = 0;         ///< 0: raw PCM; 1 to 7: compressed.
    std::uint8_t dataRequested = 0;     ///< 1 once the client has asked for audio.
    ENetPeer* peer = nullptr;           ///< Borrowed from the host; null: the slot is free.
    std::time_t connectTime = 0;        ///< Seconds since the epoch.
};

/// The clients; a slot's index is the client number in printed lines. Cleared by enetHost, then
/// touched by the capture thread only.
extern std::array<ClientSlot, CLIENT_SLOTS> clientConn;

/// ENet connections, also those that the table does not hold. Thread: capture.
extern std::int32_t connectCount;

/// True when the slot's client is to receive audio now. Realtime-safe: yes. Inline, because the
/// send path calls it for each slot in each pass.
inline bool isStreaming(const ClientSlot& slot) {
    return slot.peer != nullptr && slot.dataRequested != 0 &&
           slot.peer->state == ENET_PEER_STATE_CONNECTED;
}

/// Adds a new connection, replacing the oldest client of a full table and dropping clients without
/// the multi-client flag. `event` is a connect event. Thread: capture.
void handleConnect(const ENetEvent& event);

/// Removes a client. `event` is a disconnect event. Thread: capture.
void handleDisconnect(const ENetEvent& event);

/// Handles a control message and destroys its packet. `event` is a receive event. Thread: capture.
void handleReceive(const ENetEvent& event);

/// Formats an IPv4 address as ENet holds it (network byte order in the low 32 bits) as dotted
/// decimal into `dst` (room for 16 characters) and returns `dst`.
char* ipToString(unsigned long host, char* dst);
