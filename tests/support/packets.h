#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include <opus/opus.h>

#include "stream/wire_format.h"

/// Audio packets as a server writes them.
namespace packets {

using Bytes = std::vector<unsigned char>;

inline Bytes make(std::uint32_t seq, std::uint32_t flags, const Bytes& payload) {
    Bytes bytes(wire::HEADER_LENGTH + payload.size());
    wire::PacketHeader header;
    header.seq = seq;
    header.flags = flags;
    wire::writeHeader(bytes.data(), header);
    std::copy(payload.begin(), payload.end(), bytes.begin() + wire::HEADER_LENGTH);
    return bytes;
}

/// Samples as they stand in a packet.
inline Bytes toBytes(const std::vector<std::int16_t>& samples) {
    Bytes bytes;
    for (const std::int16_t sample : samples) {
        bytes.push_back(static_cast<unsigned char>(sample & 0xFF));
        bytes.push_back(static_cast<unsigned char>((sample >> 8) & 0xFF));
    }
    return bytes;
}

/// `frames` stereo frames whose samples count up from `first`, left and right the same.
inline std::vector<std::int16_t> ramp(std::size_t frames, int first) {
    std::vector<std::int16_t> samples;
    for (std::size_t i = 0; i < frames; ++i) {
        const auto value = static_cast<std::int16_t>(first + static_cast<int>(i));
        samples.insert(samples.end(), {value, value});
    }
    return samples;
}

/// A raw packet of 338 frames that count up from `first`.
inline Bytes raw(std::uint32_t seq, int first = 0, bool altRate = true) {
    return make(seq, wire::makeFlags(true, altRate, 0), toBytes(ramp(338, first)));
}

/// A tone of 1000 Hz with a peak value of 10000 at 48000 Hz, from frame `first` on.
std::vector<std::int16_t> tone(std::size_t frames, std::size_t first = 0);

/// Encodes the tone packet by packet, as the server does.
class OpusStream {
  public:
    /// `rateCode` 1, 2, 3 or 5; the first packet has the number `seq`.
    explicit OpusStream(std::uint32_t rateCode = 2, std::uint32_t seq = 0, bool altRate = true);
    ~OpusStream() { opus_encoder_destroy(encoder_); }
    OpusStream(const OpusStream&) = delete;
    OpusStream& operator=(const OpusStream&) = delete;

    /// The packet after the last one.
    Bytes next();

  private:
    OpusEncoder* encoder_;
    std::uint32_t flags_;
    std::uint32_t seq_;
};

}  // namespace packets
