#include "web/streams/opus_transcoder.h"

#include <array>

#include "stream/wire_format.h"

namespace vxweb {

namespace {

constexpr int RATE = 48000;
constexpr int CHANNELS = 2;
constexpr std::size_t FRAMES = wire::OPUS_FRAME_SAMPLES;
constexpr std::size_t PACKET_SAMPLES = FRAMES * CHANNELS;
constexpr int BITS_PER_KILOBIT = 1000;

}  // namespace

bool OpusTranscoder::prepare() {
    if (encoder_ == nullptr) {
        int error = OPUS_OK;
        encoder_.reset(opus_encoder_create(RATE, CHANNELS, OPUS_APPLICATION_AUDIO, &error));
        if (encoder_ == nullptr) {
            return false;
        }
        opus_encoder_ctl(encoder_.get(), OPUS_SET_BITRATE(rate_ * BITS_PER_KILOBIT));
    } else if (fresh_) {
        opus_encoder_ctl(encoder_.get(), OPUS_RESET_STATE);
    }
    fresh_ = false;
    return true;
}

void OpusTranscoder::restart() {
    fresh_ = true;
    waiting_.clear();
}

bool OpusTranscoder::take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                          const Put& put) {
    const auto sound = decoder_.decode(packet, step, [](const auto&) {});
    if (sound.count == 0 || !prepare()) {
        return false;
    }
    const auto& frames = adapter_.convert(sound.frames, sound.count, packet.sampleRate);
    waiting_.insert(waiting_.end(), frames.begin(), frames.end());
    std::array<unsigned char, wire::MAX_OPUS_BYTES> bytes{};
    std::size_t done = 0;
    for (; waiting_.size() - done >= PACKET_SAMPLES; done += PACKET_SAMPLES) {
        const opus_int32 length =
            opus_encode(encoder_.get(), waiting_.data() + done, static_cast<int>(FRAMES),
                        bytes.data(), static_cast<opus_int32>(bytes.size()));
        if (length > 0) {
            put(bytes.data(), static_cast<std::size_t>(length));
        }
    }
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(done));
    return true;
}

}  // namespace vxweb
