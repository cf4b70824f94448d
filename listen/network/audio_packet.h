#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "stream/wire_format.h"

namespace vxlisten {

/// Maximum bytes of an audio packet's payload: one fallback block.
constexpr std::size_t MAX_PAYLOAD = wire::COMPRESSED_BUFFER_LENGTH - wire::HEADER_LENGTH;

/// Rates in Hz that captured sound can have.
constexpr std::array<int, 2> SAMPLE_RATES = {44100, 48000};

/// How a packet's payload is encoded.
enum class Encoding {
    Raw,       ///< Frames of the raw pass.
    Opus,      ///< One Opus packet of 480 frames.
    Fallback,  ///< 480 frames of the compressed pass for which the server had no encoder.
};

/// A received audio packet. The payload is borrowed from the datagram.
struct AudioPacket {
    Encoding encoding = Encoding::Raw;
    std::uint32_t seq = 0;
    std::uint32_t rateCode = 0;
    bool reliable = false;
    int sampleRate = 0;      ///< Of the captured sound, compressed or not: one of SAMPLE_RATES.
    std::size_t frames = 0;  ///< Stereo frames in the payload.
    const unsigned char* payload = nullptr;
    std::size_t payloadLength = 0;  ///< Bytes, at most MAX_PAYLOAD.

    /// True for packets with sequence numbers of the compressed pass.
    [[nodiscard]] bool compressedPass() const { return encoding != Encoding::Raw; }
};

/// Reads an audio packet; nothing when `data` is not one. Pure: reads
/// `length` bytes at most, for any content. The result borrows from `data`. Realtime-safe: yes.
std::optional<AudioPacket> parseAudioPacket(const unsigned char* data, std::size_t length);

}  // namespace vxlisten
