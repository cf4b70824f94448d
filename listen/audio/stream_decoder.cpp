#include "listen/audio/stream_decoder.h"

namespace vxlisten {

namespace {

// The encoder always works at this rate, even on sound captured at 44100 Hz: what comes out are
// the captured samples, whose true rate the packet's flag tells.
constexpr opus_int32 DECODER_RATE = 48000;
constexpr int CHANNELS = 2;
constexpr int FRAMES = wire::OPUS_FRAME_SAMPLES;

/// Copies little-endian samples.
void copySamples(const AudioPacket& packet, std::int16_t* frames) {
    for (std::size_t i = 0; i < packet.frames * CHANNELS; ++i) {
        const unsigned low = packet.payload[2 * i];
        const unsigned high = packet.payload[2 * i + 1];
        frames[i] = static_cast<std::int16_t>(low | high << 8);
    }
}

}  // namespace

StreamDecoder::StreamDecoder() {
    int error = OPUS_OK;
    opus_.reset(opus_decoder_create(DECODER_RATE, CHANNELS, &error));
}

std::size_t StreamDecoder::decode(const AudioPacket& packet, std::int16_t* frames) {
    if (packet.encoding != Encoding::Opus) {
        primed_ = false;
        copySamples(packet, frames);
        return packet.frames;
    }
    if (opus_ == nullptr) {
        return 0;
    }
    if (packet.rateCode != rateCode_ || !primed_) {
        reset();  // Another encoder, whose past this decoder has not followed.
    }
    const auto length = static_cast<opus_int32>(packet.payloadLength);
    if (opus_packet_get_nb_samples(packet.payload, length, DECODER_RATE) != FRAMES) {
        return 0;
    }
    const int decoded = opus_decode(opus_.get(), packet.payload, length, frames, FRAMES, 0);
    if (decoded != FRAMES) {
        return 0;
    }
    rateCode_ = packet.rateCode;
    primed_ = true;
    return FRAMES;
}

std::size_t StreamDecoder::conceal(std::int16_t* frames) {
    if (!primed_ || opus_decode(opus_.get(), nullptr, 0, frames, FRAMES, 0) != FRAMES) {
        return 0;
    }
    return FRAMES;
}

void StreamDecoder::reset() {
    if (opus_ != nullptr) {
        opus_decoder_ctl(opus_.get(), OPUS_RESET_STATE);
    }
    primed_ = false;
}

}  // namespace vxlisten
