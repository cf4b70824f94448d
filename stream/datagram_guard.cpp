#include "stream/datagram_guard.h"

#include <algorithm>

#include "stream/event_backlog.h"

namespace {

constexpr std::size_t PEER_ID_LENGTH = offsetof(ENetProtocolHeader, sentTime);
constexpr int INTERCEPTED = 1;

/// Numbers that are further ahead are behind.
constexpr enet_uint16 BEHIND = 0x8000;

enet_uint16 readU16(const enet_uint8* at) {
    return static_cast<enet_uint16>(at[0] << 8 | at[1]);
}

enet_uint32 readU32(const enet_uint8* at) {
    return static_cast<enet_uint32>(readU16(at)) << 16 | readU16(at + 2);
}

void writeU32(enet_uint8* at, enet_uint32 value) {
    for (int i = 3; i >= 0; --i) {
        at[i] = static_cast<enet_uint8>(value);
        value >>= 8;
    }
}

/// Without its data; 0: ENet does not know the command and reads no further.
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

/// Makes the piece of a longer message say that the message is of the length that is kept. ENet
/// then takes it without having room for all of it; what comes behind overwrites the end of what is
/// kept. What ENet would refuse anyway stays as it is.
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

bool hasMorePiecesThanBytes(const enet_uint8* fragment) {
    return readU32(fragment + offsetof(ENetProtocolSendFragment, fragmentCount)) >
           readU32(fragment + offsetof(ENetProtocolSendFragment, totalLength));
}

/// Whether ENet may have to keep a command in its channel until an earlier one has come. Those that
/// bring the channel on are let through in any case.
bool mayWait(unsigned type, const enet_uint8* command, const ENetChannel& channel) {
    const std::size_t numberAt = type == ENET_PROTOCOL_COMMAND_SEND_FRAGMENT
                                     ? offsetof(ENetProtocolSendFragment, startSequenceNumber)
                                     : offsetof(ENetProtocolCommandHeader, reliableSequenceNumber);
    const auto ahead = static_cast<enet_uint16>(readU16(command + numberAt) -
                                                channel.incomingReliableSequenceNumber);
    switch (type) {
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
            return ahead > 1 && ahead < BEHIND;
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
            return ahead > 0 && ahead < BEHIND;
        default:
            return false;
    }
}

bool isFull(const ENetList& list) {
    std::size_t waiting = 0;
    for (const ENetListNode* node = list.sentinel.next;
         node != &list.sentinel && waiting < MAX_EARLY_COMMANDS; node = node->next) {
        ++waiting;
    }
    return waiting == MAX_EARLY_COMMANDS;
}

/// Only a server sends VERIFY_CONNECT, to whom it takes for its client: forged connects would let
/// two servers hear each other for ever. ENet sees a good-bye in its place.
std::size_t turnIntoGoodbye(enet_uint8* verifyConnect) {
    *verifyConnect = ENET_PROTOCOL_COMMAND_DISCONNECT;
    return sizeof(ENetProtocolDisconnect);
}

/// The client that a datagram names, and whether it has room.
class Sender {
  public:
    Sender(const ENetHost& host, unsigned peerWord) {
        const std::size_t id = peerWord & ENET_PROTOCOL_MAXIMUM_PEER_ID;
        if (id < host.peerCount && host.peers[id].address.host == host.receivedAddress.host &&
            host.peers[id].address.port == host.receivedAddress.port) {
            peer_ = &host.peers[id];
        }
    }

    bool hasNoRoomFor(unsigned type, const enet_uint8* command) {
        const std::size_t channel = command[offsetof(ENetProtocolCommandHeader, channelID)];
        return peer_ != nullptr && channel < peer_->channelCount &&
               mayWait(type, command, peer_->channels[channel]) && hasNoRoom();
    }

  private:
    /// Looked at once for a datagram: ENet has not read it yet.
    bool hasNoRoom() {
        if (!looked_) {
            looked_ = true;
            full_ = std::any_of(peer_->channels, peer_->channels + peer_->channelCount,
                                [](const ENetChannel& channel) {
                                    return isFull(channel.incomingReliableCommands) ||
                                           isFull(channel.incomingUnreliableCommands);
                                });
        }
        return full_;
    }

    const ENetPeer* peer_ = nullptr;
    bool looked_ = false;
    bool full_ = false;
};

/// How much of the received datagram ENet may read; 0: nothing.
std::size_t permittedLength(const ENetHost& host) {
    const std::size_t length = host.receivedDataLength;
    const bool canBeAnswered = host.receivedAddress.port != 0;
    if (length < PEER_ID_LENGTH || !canBeAnswered) {
        return 0;
    }
    const unsigned peerWord = readU16(host.receivedData);
    Sender sender(host, peerWord);
    std::size_t at = (peerWord & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0
                         ? sizeof(ENetProtocolHeader)
                         : PEER_ID_LENGTH;
    for (std::size_t count = 0; at + sizeof(ENetProtocolCommandHeader) <= length; ++count) {
        enet_uint8* const command = host.receivedData + at;
        const unsigned type = *command & ENET_PROTOCOL_COMMAND_MASK;
        const std::size_t size = sizeOf(type);
        if (size == 0 || size > length - at) {
            return length;
        }
        if (count == MAX_DATAGRAM_COMMANDS) {
            return 0;
        }
        if (type == ENET_PROTOCOL_COMMAND_VERIFY_CONNECT) {
            return at + turnIntoGoodbye(command);
        }
        if (isFragment(type)) {
            cutLongMessage(command);
            if (hasMorePiecesThanBytes(command)) {
                return 0;
            }
        }
        if (sender.hasNoRoomFor(type, command)) {
            return at;
        }
        at += size + dataLengthOf(type, command);
    }
    return length;
}

int guardDatagram(ENetHost* host, ENetEvent* /*event*/) {
    host->receivedDataLength = permittedLength(*host);
    return host->receivedDataLength == 0 ? INTERCEPTED : 0;
}

}  // namespace

void guardDatagrams(ENetHost& host) {
    host.intercept = guardDatagram;
}
