#pragma once

#include <cstdint>
#include <vector>

#include <enet/enet.h>

using Bytes = std::vector<unsigned char>;

Bytes operator+(Bytes left, const Bytes& right);
Bytes operator*(const Bytes& command, int times);

Bytes u16(unsigned value);
Bytes u32(std::uint32_t value);

/// ENet's commands as they cross the network, numbers most significant byte first.
constexpr std::uint8_t CONTROL_CHANNEL = 255;
Bytes acknowledgement(std::uint8_t channel, std::uint16_t number, std::uint16_t sentTime);
/// `connectId` 0: another one each time.
Bytes connectCommand(std::uint32_t data, std::uint16_t outgoingPeerId = 0,
                     std::uint32_t connectId = 0);
Bytes verifyConnectCommand();
Bytes goodbye(bool wantsAcknowledgement);
Bytes ping();
Bytes reliable(std::uint16_t number, const Bytes& data, std::uint8_t channel = 0);
Bytes unreliable(std::uint16_t reliableNumber, std::uint16_t number, const Bytes& data,
                 std::uint8_t channel = 0);
Bytes unsequenced(std::uint16_t group, const Bytes& data);

/// One fragment of a message of `totalLength` bytes; `number` is the message's first one.
struct Fragment {
    std::uint16_t number = 1;
    std::uint32_t count = 1;
    std::uint32_t index = 0;
    std::uint32_t totalLength = 1;
    std::uint32_t offset = 0;
    Bytes data = {'x'};
};
Bytes reliableFragment(const Fragment& fragment);
Bytes unreliableFragment(std::uint16_t reliableNumber, const Fragment& fragment);

inline std::uint16_t read16(const unsigned char* at) {
    return static_cast<std::uint16_t>(at[0] << 8U | at[1]);
}

/// Calls `visit` with the type and the bytes of each command of a datagram, as far as it is whole.
template <class Visit>
void visitCommands(const unsigned char* datagram, std::size_t length, Visit visit) {
    const bool hasTime = length >= 2 && (datagram[0] & 0x80U) != 0;
    for (std::size_t at = hasTime ? 4 : 2; at < length;) {
        const auto type = static_cast<std::uint8_t>(datagram[at] & ENET_PROTOCOL_COMMAND_MASK);
        const std::size_t size = enet_protocol_command_size(type);
        if (size == 0 || at + size > length) {
            return;
        }
        visit(type, datagram + at);
        const bool hasData = type >= ENET_PROTOCOL_COMMAND_SEND_RELIABLE &&
                             type != ENET_PROTOCOL_COMMAND_BANDWIDTH_LIMIT &&
                             type != ENET_PROTOCOL_COMMAND_THROTTLE_CONFIGURE;
        const std::size_t lengthAt = type == ENET_PROTOCOL_COMMAND_SEND_RELIABLE ? 4 : 6;
        at += size + (hasData ? read16(datagram + at + lengthAt) : 0);
    }
}
