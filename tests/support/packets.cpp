#include "tests/support/packets.h"

#include <cmath>

namespace packets {

std::vector<std::int16_t> tone(std::size_t frames, std::size_t first) {
    std::vector<std::int16_t> samples;
    for (std::size_t i = first; i < first + frames; ++i) {
        const double angle = 6.283185307179586 * 1000.0 * static_cast<double>(i) / 48000.0;
        const auto value = static_cast<std::int16_t>(std::lround(10000.0 * std::sin(angle)));
        samples.insert(samples.end(), {value, value});
    }
    return samples;
}

OpusStream::OpusStream(std::uint32_t rateCode, std::uint32_t seq, bool altRate)
    : encoder_(opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr)),
      flags_(wire::makeFlags(true, altRate, rateCode)),
      seq_(seq) {
    opus_encoder_ctl(encoder_, OPUS_SET_BITRATE(wire::bitRateOf(rateCode)));
}

Bytes OpusStream::next() {
    const auto samples = tone(wire::OPUS_FRAME_SAMPLES, seq_ * wire::OPUS_FRAME_SAMPLES);
    Bytes payload(wire::MAX_OPUS_BYTES);
    const int length = opus_encode(encoder_, samples.data(), wire::OPUS_FRAME_SAMPLES,
                                   payload.data(), static_cast<opus_int32>(payload.size()));
    payload.resize(static_cast<std::size_t>(length));
    return make(seq_++, flags_, payload);
}

}  // namespace packets
