#include "tests/unit/web/streams/virtual_feed.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr std::int64_t MILLISECOND = 1000;
constexpr std::int64_t SECOND = 1'000'000;

std::uint32_t codeOf(vxweb::StreamFormat format, int rate) {
    for (std::uint32_t code = 1; format == vxweb::StreamFormat::Ogg; ++code) {
        if (wire::bitRateOf(code) == rate * 1000) {
            return code;
        }
    }
    return wire::RATE_CODE_RAW;
}

}  // namespace

VirtualFeed::VirtualFeed(vxweb::StreamFormat format, int rate)
    : stream_(vxweb::makeMediaStream(format, rate, "Kitchen")), rateCode_(codeOf(format, rate)) {
    if (rateCode_ != wire::RATE_CODE_RAW) {
        encoder_.reset(opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr));
        opus_encoder_ctl(encoder_.get(), OPUS_SET_BITRATE(wire::bitRateOf(rateCode_)));
    }
}

std::size_t VirtualFeed::frames() const {
    return encoder_ != nullptr ? wire::OPUS_FRAME_SAMPLES : wire::RAW_BLOCK_FRAMES;
}

std::int64_t VirtualFeed::packetTime() {
    fraction_ += static_cast<std::int64_t>(frames()) * SECOND;
    const std::int64_t time = fraction_ / sampleRate_;
    fraction_ %= sampleRate_;
    return time;
}

packets::Bytes VirtualFeed::tone(std::size_t count) {
    std::vector<std::int16_t> samples;
    for (std::size_t i = 0; i < count; ++i, ++played_) {
        const double angle =
            2 * M_PI * TONE_HZ * static_cast<double>(played_) / static_cast<double>(sampleRate_);
        const auto value = static_cast<std::int16_t>(std::lround(TONE_PEAK * std::sin(angle)));
        samples.insert(samples.end(), {value, value});
    }
    return packets::toBytes(samples);
}

packets::Bytes VirtualFeed::encode(const packets::Bytes& sound) {
    std::vector<std::int16_t> samples(sound.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<std::int16_t>(sound[2 * i] | sound[2 * i + 1] << 8);
    }
    packets::Bytes payload(wire::MAX_OPUS_BYTES);
    const int length = opus_encode(encoder_.get(), samples.data(), wire::OPUS_FRAME_SAMPLES,
                                   payload.data(), static_cast<opus_int32>(payload.size()));
    payload.resize(static_cast<std::size_t>(length));
    return payload;
}

packets::Bytes VirtualFeed::make(const packets::Bytes& payload) {
    return packets::make(seq_++, wire::makeFlags(true, sampleRate_ == 48000, rateCode_), payload);
}

packets::Bytes VirtualFeed::next() {
    const packets::Bytes sound = tone(frames());
    return make(encoder_ != nullptr ? encode(sound) : sound);
}

void VirtualFeed::keep(const vxweb::Chunk& chunk) {
    bytes_ += chunk->size();
    if (!forgetful_) {
        chunks_.push_back(chunk);
    }
}

void VirtualFeed::deliver(const packets::Bytes& bytes) {
    const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
    const auto step = tracker_.observe(*packet);
    if (!forgetful_) {
        arrived_.emplace_back(bytes.begin() + wire::HEADER_LENGTH, bytes.end());
    }
    stream_->take(*packet, step, now_, [this](const auto& chunk) { keep(chunk); });
}

void VirtualFeed::advance(std::int64_t microseconds, std::int64_t every) {
    const std::int64_t end = now_ + microseconds;
    while (nextPass_ <= end) {
        now_ = nextPass_;
        stream_->pass(now_, [this](const auto& chunk) { keep(chunk); });
        nextPass_ += every * MILLISECOND;
    }
    now_ = end;
}

void VirtualFeed::play(std::int64_t milliseconds) {
    const std::int64_t end = now_ + milliseconds * MILLISECOND;
    while (now_ < end) {
        advance(packetTime());
        deliver(next());
    }
}

void VirtualFeed::pass(std::int64_t milliseconds, std::int64_t every) {
    advance(milliseconds * MILLISECOND, every);
}

void VirtualFeed::stall(std::int64_t milliseconds) {
    std::vector<packets::Bytes> waiting;
    for (const std::int64_t end = now_ + milliseconds * MILLISECOND; now_ < end;) {
        advance(packetTime());
        waiting.push_back(next());
    }
    for (const packets::Bytes& packet : waiting) {
        deliver(packet);
    }
}

void VirtualFeed::lose(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
        advance(packetTime());
        next();
    }
}

void VirtualFeed::reconnect(int sampleRate) {
    tracker_.restart();
    sampleRate_ = sampleRate;
}

void VirtualFeed::send(const packets::Bytes& payload) {
    advance(packetTime());
    deliver(make(payload));
}

std::string VirtualFeed::heard(std::size_t first) const {
    std::string bytes = stream_->header();
    for (std::size_t i = first; i < chunks_.size(); ++i) {
        bytes += *chunks_[i];
    }
    return bytes;
}
