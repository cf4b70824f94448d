#pragma once

#include <cstddef>
#include <cstdint>

/// The protocol, shared by all programs, tests and fuzzers. All integers are little-endian.
/// Everything here is pure and realtime-safe.
namespace wire {

constexpr std::uint16_t DEFAULT_SERVER_PORT = 59010;     ///< UDP, ENet host.
constexpr std::uint16_t DEFAULT_DISCOVERY_PORT = 59011;  ///< UDP, multicast queries.
constexpr const char* DISCOVERY_GROUP = "231.232.233.235";
constexpr const char* DISCOVERY_QUERY = "VelantrixQuery";        ///< 14 bytes on the wire.
constexpr const char* DISCOVERY_QUERY2 = "VelantrixQuery2";      ///< 15 bytes on the wire.
constexpr const char* DISCOVERY_RESPONSE = "VelantrixResponse";  ///< 17 bytes on the wire.

constexpr std::uint32_t MSGID_AUDIO = 0;
constexpr std::uint32_t MSGID_DATA = 1;
constexpr std::uint32_t MSGID_FASTER = 2;
constexpr std::uint32_t MSGID_SLOWER = 3;

constexpr std::uint32_t FLAG_RELIABLE = 1;  ///< Reliable delivery.
constexpr std::uint32_t FLAG_ALT_RATE = 2;  ///< Captured at 48000 Hz; clear: 44100 Hz.
constexpr unsigned RATE_CODE_SHIFT = 6;
constexpr std::uint32_t RATE_CODE_MASK = 7;

constexpr std::uint32_t CONNECT_VERSION_MASK = 0xFF;
constexpr std::uint32_t CONNECT_MULTI_CLIENT = 0x80000000U;
constexpr std::uint32_t DISCONNECT_REPLACED = 101;

constexpr std::size_t HEADER_LENGTH = 16;   ///< Bytes before the payload of every message.
constexpr std::size_t BYTES_PER_FRAME = 4;  ///< Two signed 16-bit samples, left then right.
constexpr std::size_t RAW_BLOCK_FRAMES = 338;
constexpr std::size_t OPUS_FRAME_SAMPLES = 480;  ///< Frames in one Opus packet.
constexpr std::size_t RAW_BUFFER_LENGTH = HEADER_LENGTH + RAW_BLOCK_FRAMES * BYTES_PER_FRAME;
constexpr std::size_t COMPRESSED_BUFFER_LENGTH =
    HEADER_LENGTH + OPUS_FRAME_SAMPLES * BYTES_PER_FRAME;
constexpr std::size_t MAX_OPUS_BYTES = RAW_BUFFER_LENGTH - HEADER_LENGTH;
constexpr std::size_t MAX_CLIENT_NAME = 255;  ///< Bytes, terminator not counted.

static_assert(RAW_BUFFER_LENGTH == 1368 && COMPRESSED_BUFFER_LENGTH == 1936);

/// Rate codes: 0 is raw PCM; 1, 2, 3 and 5 are Opus; 4, 6 and 7 have no encoder.
constexpr std::uint32_t RATE_CODE_RAW = 0;
constexpr std::uint32_t RATE_CODE_COUNT = 8;

/// Bit rate of a rate code in bit/s; 0 for raw and for codes without an encoder.
constexpr std::int32_t bitRateOf(std::uint32_t rateCode) {
    switch (rateCode) {
        case 1:
            return 64000;
        case 2:
            return 128000;
        case 3:
            return 256000;
        case 5:
            return 20000;
        default:
            return 0;
    }
}

/// The first 16 bytes of audio packets and control messages; the last four are reserved.
struct PacketHeader {
    std::uint32_t msgId = MSGID_AUDIO;
    std::uint32_t seq = 0;  ///< Audio only.
    std::uint32_t flags = 0;

    [[nodiscard]] constexpr std::uint32_t rateCode() const {
        return (flags >> RATE_CODE_SHIFT) & RATE_CODE_MASK;
    }
    [[nodiscard]] constexpr bool reliable() const { return (flags & FLAG_RELIABLE) != 0; }
    [[nodiscard]] constexpr bool altRate() const { return (flags & FLAG_ALT_RATE) != 0; }
};

/// Flags word of a message.
constexpr std::uint32_t makeFlags(bool reliable, bool altRate, std::uint32_t rateCode) {
    return (reliable ? FLAG_RELIABLE : 0U) | (altRate ? FLAG_ALT_RATE : 0U) |
           ((rateCode & RATE_CODE_MASK) << RATE_CODE_SHIFT);
}

/// Reads the 32-bit value at byte `offset`; bytes beyond `length` count as zero.
inline std::uint32_t readU32(const unsigned char* data, std::size_t length, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < sizeof value && offset + i < length; ++i) {
        value |= static_cast<std::uint32_t>(data[offset + i]) << (8 * i);
    }
    return value;
}

/// Writes four bytes at `destination`.
inline void writeU32(unsigned char* destination, std::uint32_t value) {
    for (std::size_t i = 0; i < sizeof value; ++i) {
        destination[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

/// Reads a header; bytes beyond `length` count as zero.
inline PacketHeader readHeader(const unsigned char* data, std::size_t length) {
    PacketHeader header;
    header.msgId = readU32(data, length, 0);
    header.seq = readU32(data, length, 4);
    header.flags = readU32(data, length, 8);
    return header;
}

/// Writes the 16 header bytes at `destination`, the reserved ones as zero.
inline void writeHeader(unsigned char* destination, const PacketHeader& header) {
    writeU32(destination, header.msgId);
    writeU32(destination + 4, header.seq);
    writeU32(destination + 8, header.flags);
    writeU32(destination + 12, 0);
}

}  // namespace wire
