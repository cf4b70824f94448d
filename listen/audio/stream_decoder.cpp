#include "listen/audio/stream_decoder.h"

#include <utility>

#include "listen/audio/splicing.h"

namespace vxlisten {

namespace {

// The encoder always uses this rate, also for sound captured at 44100 Hz: the result is the
// captured samples, whose true rate is in the packet's flags.
constexpr opus_int32 DECODER_RATE = 48000;
constexpr int CHANNELS = 2;
constexpr int FRAMES = wire::OPUS_FRAME_SAMPLES;
constexpr unsigned MAXIMUM_RUN = 6;  ///< Lost Opus packets in a row until silence.
constexpr unsigned SHORT_RUN = 2;    ///< After up to this many, sound needs no fade in.

/// Copies little-endian samples.
void copySamples(const AudioPacket& packet, std::int16_t* frames) {
    for (std::size_t i = 0; i < packet.frames * CHANNELS; ++i) {
        const unsigned low = packet.payload[2 * i];
        const unsigned high = packet.payload[2 * i + 1];
        frames[i] = static_cast<std::int16_t>(low | high << 8);
    }
}

double gainAfter(unsigned run) {
    return 1.0 - static_cast<double>(run) / MAXIMUM_RUN;
}

}  // namespace

StreamDecoder::StreamDecoder() {
    int error = OPUS_OK;
    opus_.reset(opus_decoder_create(DECODER_RATE, CHANNELS, &error));
}

void StreamDecoder::reset() {
    resetOpus();
    join_ = Join::NewStream;
    lostRun_ = 0;
    count_ = 0;
}

void StreamDecoder::resetOpus() {
    if (opus_ != nullptr) {
        opus_decoder_ctl(opus_.get(), OPUS_RESET_STATE);
    }
    primed_ = false;
}

std::size_t StreamDecoder::decodeOpus(const AudioPacket& packet) {
    if (opus_ == nullptr) {
        return 0;
    }
    if (packet.rateCode != rateCode_ || !primed_) {
        resetOpus();  // Another encoder: the decoder's state does not match.
    }
    const auto length = static_cast<opus_int32>(packet.payloadLength);
    if (opus_packet_get_nb_samples(packet.payload, length, DECODER_RATE) != FRAMES ||
        opus_decode(opus_.get(), packet.payload, length, block_.data(), FRAMES, 0) != FRAMES) {
        return 0;
    }
    rateCode_ = packet.rateCode;
    primed_ = true;
    return FRAMES;
}

DecodedBlock StreamDecoder::decode(const AudioPacket& packet) {
    std::size_t count = packet.frames;
    if (packet.encoding == Encoding::Opus) {
        count = decodeOpus(packet);
    } else {
        primed_ = false;
        copySamples(packet, block_.data());
    }
    if (count == 0) {
        return {};
    }
    if (join_ == Join::Continues && lostRun_ > (primed_ ? SHORT_RUN : 0)) {
        join_ = Join::FadeIn;
    }
    lostRun_ = 0;
    count_ = count;
    sampleRate_ = packet.sampleRate;
    return {block_.data(), count, sampleRate_, std::exchange(join_, Join::Continues), false};
}

DecodedBlock StreamDecoder::conceal() {
    const unsigned run = lostRun_++;
    if (primed_ && run < MAXIMUM_RUN &&
        opus_decode(opus_.get(), nullptr, 0, block_.data(), FRAMES, 0) == FRAMES) {
        fade(block_.data(), count_, gainAfter(run), gainAfter(run + 1));
    } else if (!primed_ && run == 0) {
        mirror(block_.data(), count_);
        fade(block_.data(), count_, 1.0, 0.0);
    } else {
        block_.fill(0);
    }
    return {block_.data(), count_, sampleRate_, Join::Continues, true};
}

}  // namespace vxlisten
