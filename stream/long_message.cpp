#include "stream/long_message.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t PEER_ID_LENGTH = sizeof(enet_uint16);

std::size_t headerLength(const enet_uint8* datagram, std::size_t length) {
    enet_uint16 peerId = 0;
    if (length < PEER_ID_LENGTH) {
        return length;
    }
    std::memcpy(&peerId, datagram, sizeof peerId);
    return (ENET_NET_TO_HOST_16(peerId) & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0
               ? sizeof(ENetProtocolHeader)
               : PEER_ID_LENGTH;
}

bool isFragment(unsigned number) {
    return number == ENET_PROTOCOL_COMMAND_SEND_FRAGMENT ||
           number == ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT;
}

/// The bytes that follow a command.
std::size_t dataLengthOf(unsigned number, const ENetProtocol& command) {
    switch (number) {
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
            return ENET_NET_TO_HOST_16(command.sendReliable.dataLength);
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
            return ENET_NET_TO_HOST_16(command.sendUnreliable.dataLength);
        case ENET_PROTOCOL_COMMAND_SEND_UNSEQUENCED:
            return ENET_NET_TO_HOST_16(command.sendUnsequenced.dataLength);
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
            return ENET_NET_TO_HOST_16(command.sendFragment.dataLength);
        default:
            return 0;
    }
}

void cut(ENetProtocolSendFragment& fragment) {
    constexpr enet_uint32 KEPT = MAX_MESSAGE_BYTES;
    const enet_uint32 total = ENET_NET_TO_HOST_32(fragment.totalLength);
    const enet_uint32 offset = ENET_NET_TO_HOST_32(fragment.fragmentOffset);
    const enet_uint32 length = ENET_NET_TO_HOST_16(fragment.dataLength);
    if (total > KEPT && length <= KEPT && offset < total && length <= total - offset) {
        fragment.totalLength = ENET_HOST_TO_NET_32(KEPT);
        fragment.fragmentOffset = ENET_HOST_TO_NET_32(std::min(offset, KEPT - length));
    }
}

}  // namespace

void cutLongMessages(enet_uint8* datagram, std::size_t length) {
    std::size_t at = headerLength(datagram, length);
    while (at < length) {
        const unsigned number = datagram[at] & ENET_PROTOCOL_COMMAND_MASK;
        if (number >= ENET_PROTOCOL_COMMAND_COUNT) {
            return;
        }
        const std::size_t size = enet_protocol_command_size(static_cast<enet_uint8>(number));
        if (size == 0 || size > length - at) {
            return;
        }
        ENetProtocol command = {};
        std::memcpy(&command, datagram + at, size);
        if (isFragment(number)) {
            cut(command.sendFragment);
            std::memcpy(datagram + at, &command, size);
        }
        at += size + dataLengthOf(number, command);
    }
}
