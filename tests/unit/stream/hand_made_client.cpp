#include "tests/unit/stream/hand_made_client.h"

namespace {

constexpr const char* SERVER_HOST = "127.0.0.1";

std::string textOf(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// A datagram to no peer or, by its number, to a peer.
Bytes datagramTo(std::uint16_t peerId, const Bytes& commands) {
    return u16(peerId | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(0) + commands;
}

}  // namespace

void sendForged(std::uint16_t from, std::uint16_t to, std::uint16_t peerId, const Bytes& commands) {
    sendFromPort(from, textOf(datagramTo(peerId, commands)), SERVER_HOST, to);
}

HandMadeClient::HandMadeClient(std::uint32_t connectData, const Bytes& more) {
    sendDatagram(datagramTo(ENET_PROTOCOL_MAXIMUM_PEER_ID, connectCommand(connectData) + more));
}

void HandMadeClient::sendDatagram(const Bytes& datagram) const {
    socket_.send(textOf(datagram), SERVER_HOST, wire::DEFAULT_SERVER_PORT);
}

void HandMadeClient::listen() {
    while (const auto datagram = socket_.receive(0)) {
        take(Bytes(datagram->text.begin(), datagram->text.end()));
    }
}

void HandMadeClient::take(const Bytes& datagram) {
    ++datagrams;
    const bool hasTime = (datagram.at(0) & 0x80U) != 0;
    serverTime = hasTime ? read16(&datagram.at(2)) : serverTime;
    visitCommands(datagram.data(), datagram.size(), [&](std::uint8_t type, const auto* command) {
        if (type == ENET_PROTOCOL_COMMAND_VERIFY_CONNECT) {
            peerId = read16(command + 4);
            session_ = command[7];
        } else if (type == ENET_PROTOCOL_COMMAND_DISCONNECT) {
            disconnectData =
                static_cast<std::uint32_t>(read16(command + 4) << 16U) | read16(command + 6);
        } else if (type == ENET_PROTOCOL_COMMAND_ACKNOWLEDGE) {
            ++acknowledgements;
        }
        if ((command[0] & ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE) != 0) {
            unanswered.push_back({type, command[1], read16(command + 2), serverTime});
        }
    });
}

void HandMadeClient::acknowledgeAll(std::optional<std::uint16_t> sentTime) {
    for (const Command& command : unanswered) {
        send(acknowledgement(command.channel, command.number, sentTime.value_or(command.sentTime)));
    }
    unanswered.clear();
}

void HandMadeClient::send(const Bytes& commands, bool withTime) {
    const unsigned head = peerId.value_or(0) | session_ << ENET_PROTOCOL_HEADER_SESSION_SHIFT;
    sendDatagram(
        (withTime ? u16(head | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(serverTime) : u16(head)) +
        commands);
}
