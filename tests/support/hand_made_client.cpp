#include "tests/support/hand_made_client.h"

#include <arpa/inet.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr unsigned WANTED = ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE;
constexpr std::size_t LONGEST = 65536;

Bytes u8(unsigned value) {
    return {static_cast<unsigned char>(value)};
}

Bytes u16(unsigned value) {
    return u8(value >> 8) + u8(value);
}

Bytes u32(std::uint32_t value) {
    return u16(value >> 16) + u16(value);
}

Bytes header(unsigned command, unsigned channel, unsigned number) {
    return u8(command) + u8(channel) + u16(number);
}

Bytes fragmentOf(unsigned command, unsigned number, const Fragment& fragment) {
    return header(command, 0, number) + u16(fragment.number) +
           u16(static_cast<unsigned>(fragment.data.size())) + u32(fragment.count) +
           u32(fragment.index) + u32(fragment.totalLength) + u32(fragment.offset) + fragment.data;
}

std::uint16_t read16(const Bytes& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes.at(at) << 8 | bytes.at(at + 1));
}

/// Of a command with its data.
std::size_t sizeOf(const Bytes& datagram, std::size_t at) {
    const unsigned type = datagram.at(at) & ENET_PROTOCOL_COMMAND_MASK;
    const std::size_t size = enet_protocol_command_size(static_cast<enet_uint8>(type));
    switch (type) {
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
            return size + read16(datagram, at + 4);
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
            return size + read16(datagram, at + 6);
        default:
            return size;
    }
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes operator*(const Bytes& command, int times) {
    Bytes all;
    for (int i = 0; i < times; ++i) {
        all.insert(all.end(), command.begin(), command.end());
    }
    return all;
}

Bytes acknowledgement(std::uint8_t channel, std::uint16_t number, std::uint16_t sentTime) {
    return header(ENET_PROTOCOL_COMMAND_ACKNOWLEDGE, channel, number) + u16(number) + u16(sentTime);
}

Bytes connectCommand(std::uint32_t data, std::uint16_t outgoingPeerId) {
    static std::uint32_t connectId = 0;
    return header(ENET_PROTOCOL_COMMAND_CONNECT | WANTED, CONTROL_CHANNEL, 1) +
           u16(outgoingPeerId) + u8(0xFF) + u8(0xFF) + u32(1400) +
           u32(ENET_PROTOCOL_MAXIMUM_WINDOW_SIZE) + u32(2) + u32(0) + u32(0) + u32(5000) + u32(2) +
           u32(2) + u32(++connectId) + u32(data);
}

Bytes verifyConnectCommand() {
    return header(ENET_PROTOCOL_COMMAND_VERIFY_CONNECT | WANTED, CONTROL_CHANNEL, 1) + Bytes(40, 0);
}

Bytes goodbye(bool wantsAcknowledgement) {
    const unsigned flag = wantsAcknowledgement ? WANTED : 0U;
    return header(ENET_PROTOCOL_COMMAND_DISCONNECT | flag, CONTROL_CHANNEL, 2) + u32(0);
}

Bytes ping() {
    return header(ENET_PROTOCOL_COMMAND_PING | WANTED, CONTROL_CHANNEL, 2);
}

Bytes reliable(std::uint16_t number, const Bytes& data, std::uint8_t channel) {
    return header(ENET_PROTOCOL_COMMAND_SEND_RELIABLE | WANTED, channel, number) +
           u16(static_cast<unsigned>(data.size())) + data;
}

Bytes unreliable(std::uint16_t reliableNumber, std::uint16_t number, const Bytes& data,
                 std::uint8_t channel) {
    return header(ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE, channel, reliableNumber) + u16(number) +
           u16(static_cast<unsigned>(data.size())) + data;
}

Bytes unsequenced(std::uint16_t group, const Bytes& data) {
    return header(ENET_PROTOCOL_COMMAND_SEND_UNSEQUENCED | ENET_PROTOCOL_COMMAND_FLAG_UNSEQUENCED,
                  0, 0) +
           u16(group) + u16(static_cast<unsigned>(data.size())) + data;
}

Bytes reliableFragment(const Fragment& fragment) {
    return fragmentOf(ENET_PROTOCOL_COMMAND_SEND_FRAGMENT | WANTED,
                      fragment.number + fragment.index, fragment);
}

Bytes unreliableFragment(std::uint16_t reliableNumber, const Fragment& fragment) {
    return fragmentOf(ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT, reliableNumber, fragment);
}

void sendForged(std::uint16_t from, std::uint16_t to, std::uint16_t peerId, const Bytes& commands) {
    const int raw = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
    const Bytes payload = u16(peerId | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(0) + commands;
    const auto length = static_cast<unsigned>(sizeof(udphdr) + payload.size());
    const Bytes datagram = u16(from) + u16(to) + u16(length) + u16(0) + payload;  // No checksum.
    const sockaddr_in address = loopback(0);
    EXPECT_EQ(::sendto(raw, datagram.data(), datagram.size(), 0,
                       reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(datagram.size()));
    ::close(raw);
}

HandMadeClient::HandMadeClient(std::uint32_t connectData, const Bytes& more)
    : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address = loopback(wire::DEFAULT_SERVER_PORT);
    EXPECT_EQ(::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const Bytes datagram =
        u16(ENET_PROTOCOL_MAXIMUM_PEER_ID | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(0) +
        connectCommand(connectData) + more;
    EXPECT_EQ(::send(socket, datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
}

HandMadeClient::~HandMadeClient() {
    ::close(socket);
}

void HandMadeClient::listen() {
    Bytes room(LONGEST);
    for (ssize_t got = 0; (got = ::recv(socket, room.data(), room.size(), 0)) > 0;) {
        take(Bytes(room.begin(), room.begin() + got));
    }
}

void HandMadeClient::take(const Bytes& datagram) {
    ++datagrams;
    const bool hasTime = (read16(datagram, 0) & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0;
    serverTime = hasTime ? read16(datagram, 2) : serverTime;
    for (std::size_t at = hasTime ? 4 : 2; at < datagram.size(); at += sizeOf(datagram, at)) {
        const auto type = static_cast<std::uint8_t>(datagram[at] & ENET_PROTOCOL_COMMAND_MASK);
        if (type == ENET_PROTOCOL_COMMAND_VERIFY_CONNECT) {
            peerId = read16(datagram, at + 4);
            session = datagram.at(at + 7);
        } else if (type == ENET_PROTOCOL_COMMAND_DISCONNECT) {
            disconnectData = static_cast<std::uint32_t>(read16(datagram, at + 4) << 16U) |
                             read16(datagram, at + 6);
        } else if (type == ENET_PROTOCOL_COMMAND_ACKNOWLEDGE) {
            ++acknowledgements;
        }
        if ((datagram[at] & WANTED) != 0) {
            unanswered.push_back({type, datagram[at + 1], read16(datagram, at + 2), serverTime});
        }
    }
}

void HandMadeClient::acknowledgeAll(std::optional<std::uint16_t> sentTime) {
    for (const Command& command : unanswered) {
        send(acknowledgement(command.channel, command.number, sentTime.value_or(command.sentTime)));
    }
    unanswered.clear();
}

void HandMadeClient::send(const Bytes& commands, bool withTime) {
    const unsigned head = peerId.value_or(0) | session << ENET_PROTOCOL_HEADER_SESSION_SHIFT;
    const Bytes datagram =
        (withTime ? u16(head | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(serverTime) : u16(head)) +
        commands;
    EXPECT_EQ(::send(socket, datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
}

std::uint16_t HandMadeClient::port() const {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}
