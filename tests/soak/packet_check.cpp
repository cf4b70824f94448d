#include "tests/soak/packet_check.h"

#include <cstring>

#include "bench/test_sound.h"
#include "stream/wire_format.h"

namespace {

/// True when `seq` lies behind `last`, across the wrap as well.
bool goesForward(const std::optional<std::uint32_t>& last, std::uint32_t seq) {
    return !last || static_cast<std::int32_t>(seq - *last) > 0;
}

std::string inSequence(std::optional<std::uint32_t>& last, std::uint32_t seq) {
    if (!goesForward(last, seq)) {
        return "sequence number " + std::to_string(seq) + " after " + std::to_string(*last);
    }
    last = seq;
    return {};
}

}  // namespace

PacketCheck::PacketCheck(const CaptureTable& captureTable)
    : table(captureTable),
      sound(testsound::make()),
      decoder(opus_decoder_create(48000, 2, nullptr)) {}

void PacketCheck::restart() {
    lastRaw.reset();
    lastCompressed.reset();
}

std::string PacketCheck::check(const ENetPacket& packet) {
    const wire::PacketHeader header = wire::readHeader(packet.data, packet.dataLength);
    if (packet.dataLength < wire::HEADER_LENGTH || header.msgId != wire::MSGID_AUDIO) {
        return "not an audio packet";
    }
    const std::uint32_t known = wire::makeFlags(true, true, wire::RATE_CODE_MASK);
    if (!header.altRate() || (header.flags & ~known) != 0) {
        return "flags " + std::to_string(header.flags);
    }
    // The other way round is right: ENet sends every 65,536th best-effort packet reliably.
    const bool sentReliably = (packet.flags & ENET_PACKET_FLAG_RELIABLE) != 0;
    if (header.reliable() && !sentReliably) {
        return "reliable packet sent best-effort";
    }
    return header.rateCode() == wire::RATE_CODE_RAW
               ? checkRaw(packet, header.seq)
               : checkCompressed(packet, header.seq, header.rateCode());
}

std::string PacketCheck::checkRaw(const ENetPacket& packet, std::uint32_t seq) {
    if (packet.dataLength != wire::RAW_BUFFER_LENGTH) {
        return "raw packet of " + std::to_string(packet.dataLength) + " bytes";
    }
    const std::string order = inSequence(lastRaw, seq);
    if (!order.empty()) {
        return "raw " + order;
    }
    const std::uint64_t block = seq - table.firstRaw.load();
    return checkFrames(packet.data + wire::HEADER_LENGTH, block * wire::RAW_BLOCK_FRAMES,
                       wire::RAW_BLOCK_FRAMES);
}

std::string PacketCheck::checkCompressed(const ENetPacket& packet, std::uint32_t seq,
                                         std::uint32_t rateCode) {
    const std::string order = inSequence(lastCompressed, seq);
    if (!order.empty()) {
        return "compressed " + order;
    }
    const unsigned char* const payload = packet.data + wire::HEADER_LENGTH;
    if (wire::bitRateOf(rateCode) == 0) {
        if (packet.dataLength != wire::COMPRESSED_BUFFER_LENGTH) {
            return "fallback of " + std::to_string(packet.dataLength) + " bytes";
        }
        const std::uint64_t group = seq - table.firstCompressed.load();
        return checkFrames(payload, group * wire::OPUS_FRAME_SAMPLES, wire::OPUS_FRAME_SAMPLES);
    }
    std::int16_t frames[2 * wire::OPUS_FRAME_SAMPLES];
    const int decoded = opus_decode(
        decoder.get(), payload, static_cast<opus_int32>(packet.dataLength - wire::HEADER_LENGTH),
        frames, wire::OPUS_FRAME_SAMPLES, 0);
    return decoded == static_cast<int>(wire::OPUS_FRAME_SAMPLES) ? "" : "undecodable Opus packet";
}

std::string PacketCheck::checkFrames(const unsigned char* frames, std::uint64_t first,
                                     std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t frame = first + i;
        if (frame % testsound::BLOCK_FRAMES < testsound::STAMP_BYTES / wire::BYTES_PER_FRAME) {
            continue;
        }
        const std::size_t inLoop = frame % (testsound::BLOCKS * testsound::BLOCK_FRAMES);
        if (std::memcmp(frames + i * wire::BYTES_PER_FRAME, &sound[2 * inLoop],
                        wire::BYTES_PER_FRAME) != 0) {
            return "wrong sample at frame " + std::to_string(frame);
        }
    }
    return {};
}
