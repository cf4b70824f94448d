#include "tests/support/enet_commands.h"

namespace {

constexpr unsigned WANTED = ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE;

Bytes u8(unsigned value) {
    return {static_cast<unsigned char>(value)};
}

Bytes header(unsigned command, unsigned channel, unsigned number) {
    return u8(command) + u8(channel) + u16(number);
}

Bytes fragmentOf(unsigned command, unsigned number, const Fragment& fragment) {
    return header(command, 0, number) + u16(fragment.number) +
           u16(static_cast<unsigned>(fragment.data.size())) + u32(fragment.count) +
           u32(fragment.index) + u32(fragment.totalLength) + u32(fragment.offset) + fragment.data;
}

}  // namespace

Bytes u16(unsigned value) {
    return u8(value >> 8) + u8(value);
}

Bytes u32(std::uint32_t value) {
    return u16(value >> 16) + u16(value);
}

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

Bytes connectCommand(std::uint32_t data, std::uint16_t outgoingPeerId, std::uint32_t connectId) {
    static std::uint32_t lastId = 0;
    lastId += connectId == 0 ? 1 : 0;
    return header(ENET_PROTOCOL_COMMAND_CONNECT | WANTED, CONTROL_CHANNEL, 1) +
           u16(outgoingPeerId) + u8(0xFF) + u8(0xFF) + u32(1400) +
           u32(ENET_PROTOCOL_MAXIMUM_WINDOW_SIZE) + u32(2) + u32(0) + u32(0) + u32(5000) + u32(2) +
           u32(2) + u32(connectId == 0 ? lastId : connectId) + u32(data);
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
    return header(unsigned{ENET_PROTOCOL_COMMAND_SEND_UNSEQUENCED} |
                      ENET_PROTOCOL_COMMAND_FLAG_UNSEQUENCED,
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
