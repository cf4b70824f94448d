#pragma once

#include <cstddef>
#include <cstdint>

/// The part of ENet that the trimming of a client's queue touches, declared by us under ENet's
/// names, so that the code for ENet releases that are not installed compiles and runs in tests.
/// TEST_ENET_PATCH says which release of 1.3 it is. Only fields that the
/// trimming reads or writes are here; the memory layout is not ENet's.

using enet_uint8 = std::uint8_t;
using enet_uint16 = std::uint16_t;
using enet_uint32 = std::uint32_t;

#define ENET_VERSION_CREATE(major, minor, patch) (((major) << 16) | ((minor) << 8) | (patch))

struct ENetListNode {
    ENetListNode* next;
    ENetListNode* previous;
};
using ENetListIterator = ENetListNode*;

struct ENetList {
    ENetListNode sentinel;
};

inline ENetListIterator enet_list_begin(ENetList* list) {
    return list->sentinel.next;
}
inline ENetListIterator enet_list_end(ENetList* list) {
    return &list->sentinel;
}
inline ENetListIterator enet_list_next(ENetListIterator position) {
    return position->next;
}
void enet_list_clear(ENetList* list);
ENetListIterator enet_list_insert(ENetListIterator position, void* data);
void* enet_list_remove(ENetListIterator position);
std::size_t enet_list_size(ENetList* list);

constexpr unsigned ENET_PROTOCOL_COMMAND_MASK = 0x0F;
constexpr unsigned ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE = 1U << 7;
constexpr enet_uint8 ENET_PROTOCOL_COMMAND_PING = 5;
constexpr enet_uint8 ENET_PROTOCOL_COMMAND_SEND_RELIABLE = 6;
constexpr enet_uint8 ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE = 7;
constexpr enet_uint8 ENET_PROTOCOL_COMMAND_SEND_FRAGMENT = 8;

struct ENetProtocolCommandHeader {
    enet_uint8 command;
    enet_uint8 channelID;
};
union ENetProtocol {
    ENetProtocolCommandHeader header;
};

struct ENetPacket;
using ENetPacketFreeCallback = void (*)(ENetPacket*);
struct ENetPacket {
    std::size_t referenceCount;
    ENetPacketFreeCallback freeCallback;
};

struct ENetOutgoingCommand {
    ENetListNode outgoingCommandList;
    enet_uint16 reliableSequenceNumber;
    enet_uint16 fragmentLength;
    enet_uint16 sendAttempts;
    ENetProtocol command;
    ENetPacket* packet;
};

struct ENetChannel {
    enet_uint16 outgoingReliableSequenceNumber;
};

struct ENetEvent;

enum ENetPeerState { ENET_PEER_STATE_DISCONNECTED = 0, ENET_PEER_STATE_CONNECTED = 5 };

constexpr enet_uint32 ENET_PACKET_FLAG_RELIABLE = 1;
ENetPacket* enet_packet_create(const void* data, std::size_t length, enet_uint32 flags);
void enet_packet_destroy(ENetPacket* packet);
std::size_t enet_protocol_command_size(enet_uint8 command);
void* enet_malloc(std::size_t size);
void enet_free(void* memory);

#define ENET_VERSION ENET_VERSION_CREATE(1, 3, TEST_ENET_PATCH)

struct ENetPeer {
    ENetPeerState state;
    ENetChannel* channels;
    enet_uint32 outgoingDataTotal;
    ENetList sentReliableCommands;
#if TEST_ENET_PATCH < 16  // Separate lists of reliable and unreliable commands.
    ENetList outgoingReliableCommands;
    ENetList outgoingUnreliableCommands;
#else
    ENetList outgoingCommands;
#endif
#if TEST_ENET_PATCH >= 18  // The reliable ones that carry data.
    ENetList outgoingSendReliableCommands;
#endif
};
