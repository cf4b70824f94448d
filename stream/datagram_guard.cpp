#include "stream/datagram_guard.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "stream/capture_thread.h"
#include "stream/command_cost.h"
#include "stream/event_backlog.h"
#include "stream/network_order.h"

namespace {

constexpr std::size_t PEER_ID_LENGTH = offsetof(ENetProtocolHeader, sentTime);
constexpr int INTERCEPTED = 1;

/// Size of the command without its data; 0: unknown, ENet reads no further.
std::size_t sizeOf(unsigned type) {
    return type < ENET_PROTOCOL_COMMAND_COUNT
               ? enet_protocol_command_size(static_cast<enet_uint8>(type))
               : 0;
}

/// The bytes that follow a command.
std::size_t dataLengthOf(unsigned type, const enet_uint8* command) {
    switch (type) {
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
            return readU16(command + offsetof(ENetProtocolSendReliable, dataLength));
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
            return readU16(command + offsetof(ENetProtocolSendUnreliable, dataLength));
        case ENET_PROTOCOL_COMMAND_SEND_UNSEQUENCED:
            return readU16(command + offsetof(ENetProtocolSendUnsequenced, dataLength));
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
            return readU16(command + offsetof(ENetProtocolSendFragment, dataLength));
        default:
            return 0;
    }
}

bool isFragment(unsigned type) {
    return type == ENET_PROTOCOL_COMMAND_SEND_FRAGMENT ||
           type == ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT;
}

/// Changes a fragment of a longer message as if the message had the maximum length. ENet then
/// accepts it without memory for all of it; later fragments overwrite the end. Leaves what ENet
/// refuses anyway.
void cutLongMessage(enet_uint8* fragment) {
    constexpr enet_uint32 KEPT = MAX_MESSAGE_BYTES;
    enet_uint8* const totalAt = fragment + offsetof(ENetProtocolSendFragment, totalLength);
    enet_uint8* const offsetAt = fragment + offsetof(ENetProtocolSendFragment, fragmentOffset);
    const enet_uint32 total = readU32(totalAt);
    const enet_uint32 offset = readU32(offsetAt);
    const enet_uint32 length = readU16(fragment + offsetof(ENetProtocolSendFragment, dataLength));
    if (total > KEPT && length <= KEPT && offset < total && length <= total - offset) {
        writeU32(totalAt, KEPT);
        writeU32(offsetAt, std::min(offset, KEPT - length));
    }
}

bool hasMoreFragmentsThanBytes(const enet_uint8* fragment) {
    return readU32(fragment + offsetof(ENetProtocolSendFragment, fragmentCount)) >
           readU32(fragment + offsetof(ENetProtocolSendFragment, totalLength));
}

/// The peer that a datagram names, if its address is that of the sender.
ENetPeer* senderOf(const ENetHost& host, unsigned peerWord) {
    const std::size_t id = peerWord & ENET_PROTOCOL_MAXIMUM_PEER_ID;
    const bool known = id < host.peerCount &&
                       host.peers[id].address.host == host.receivedAddress.host &&
                       host.peers[id].address.port == host.receivedAddress.port;
    return known ? &host.peers[id] : nullptr;
}

/// Removes from the received datagram what ENet must not read; returns the length that is left.
std::size_t filter(const ENetHost& host) {
    const std::size_t length = host.receivedDataLength;
    const bool canBeAnswered = host.receivedAddress.port != 0;
    if (length < PEER_ID_LENGTH || !canBeAnswered) {
        return 0;
    }
    enet_uint8* const data = host.receivedData;
    const unsigned peerWord = readU16(data);
    ENetPeer* const sender = senderOf(host, peerWord);
    std::size_t at = (peerWord & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0
                         ? sizeof(ENetProtocolHeader)
                         : PEER_ID_LENGTH;
    std::size_t kept = std::min(at, length);
    for (std::size_t count = 0; at + sizeof(ENetProtocolCommandHeader) <= length; ++count) {
        enet_uint8* const command = data + at;
        const unsigned type = *command & ENET_PROTOCOL_COMMAND_MASK;
        const std::size_t size = sizeOf(type);
        if (size == 0 || size > length - at) {
            break;
        }
        if (count == MAX_DATAGRAM_COMMANDS) {
            return 0;
        }
        if (type == ENET_PROTOCOL_COMMAND_VERIFY_CONNECT) {
            // Only a server sends it, to a client. Forged connects would connect two servers to
            // each other.
            data[kept] = ENET_PROTOCOL_COMMAND_DISCONNECT;
            return kept + sizeof(ENetProtocolDisconnect);
        }
        if (isFragment(type)) {
            cutLongMessage(command);
            if (hasMoreFragmentsThanBytes(command)) {
                return 0;
            }
        }
        const std::size_t whole = std::min(size + dataLengthOf(type, command), length - at);
        if (sender == nullptr || !costsTooMuch(*sender, command)) {
            std::memmove(data + kept, command, whole);
            kept += whole;
        }
        at += whole;
    }
    return kept;
}

int guardDatagram(ENetHost* host, ENetEvent* /*event*/) {
    host->receivedDataLength = filter(*host);
    return host->receivedDataLength == 0 ? INTERCEPTED : 0;
}

}  // namespace

void guardDatagrams(ENetHost& host) {
    assert(!captureThread.elsewhere());
    host.intercept = guardDatagram;
}
