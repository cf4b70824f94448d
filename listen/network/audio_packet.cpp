#include "listen/network/audio_packet.h"

namespace vxlisten {

namespace {

/// Sets encoding and frame count by rate code and payload length; false when a server never sends
/// that.
bool classify(AudioPacket& packet) {
    if (packet.rateCode == wire::RATE_CODE_RAW) {
        packet.encoding = Encoding::Raw;
        packet.frames = packet.payloadLength / wire::BYTES_PER_FRAME;
        return packet.payloadLength % wire::BYTES_PER_FRAME == 0 &&
               packet.payloadLength <= MAX_PAYLOAD;
    }
    packet.frames = wire::OPUS_FRAME_SAMPLES;
    if (packet.payloadLength == MAX_PAYLOAD) {
        packet.encoding = Encoding::Fallback;
        return true;
    }
    packet.encoding = Encoding::Opus;
    return packet.payloadLength > 0 && packet.payloadLength <= wire::MAX_OPUS_BYTES;
}

}  // namespace

std::optional<AudioPacket> parseAudioPacket(const unsigned char* data, std::size_t length) {
    if (length < wire::HEADER_LENGTH) {
        return std::nullopt;
    }
    const wire::PacketHeader header = wire::readHeader(data, length);
    if (header.msgId != wire::MSGID_AUDIO) {
        return std::nullopt;
    }
    AudioPacket packet;
    packet.seq = header.seq;
    packet.rateCode = header.rateCode();
    packet.reliable = header.reliable();
    packet.sampleRate = SAMPLE_RATES[header.altRate() ? 1 : 0];
    packet.payload = data + wire::HEADER_LENGTH;
    packet.payloadLength = length - wire::HEADER_LENGTH;
    if (!classify(packet)) {
        return std::nullopt;
    }
    return packet;
}

}  // namespace vxlisten
