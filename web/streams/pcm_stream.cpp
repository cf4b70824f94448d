#include "web/streams/pcm_stream.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vxweb {

namespace {

/// A step at a join is spread over 5 ms.
constexpr std::size_t JOIN_FRAMES = 240;

std::int16_t clipped(double value) {
    return static_cast<std::int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0)));
}

}  // namespace

void PcmStream::startOnce() {
    if (adapter_ == nullptr) {
        adapter_ = std::make_unique<vxlisten::RateAdapter>(clock_.rate());
        start(clock_.rate());
    }
}

// Spreads the step between the last frame written and the first of these.
void PcmStream::writeJoined(std::int16_t* frames, std::size_t count, bool join) {
    if (count == 0) {
        return;
    }
    for (std::size_t c = 0; join && c < CHANNELS; ++c) {
        const double step = static_cast<double>(last_[c]) - frames[c];
        for (std::size_t i = 0; i < std::min(count, JOIN_FRAMES); ++i) {
            const double part = 1.0 - static_cast<double>(i) / JOIN_FRAMES;
            std::int16_t& sample = frames[i * CHANNELS + c];
            sample = clipped(sample + step * part);
        }
    }
    std::copy_n(frames + (count - 1) * CHANNELS, CHANNELS, last_.begin());
    write(frames, count, bytes_);
}

void PcmStream::writeSilence(std::size_t count) {
    if (count > 0) {
        startOnce();
        frames_.assign(count * CHANNELS, 0);
        writeJoined(frames_.data(), count, true);
        join_ = true;
    }
}

void PcmStream::writeSound(const std::int16_t* frames, std::size_t count, int rate) {
    startOnce();
    frames_ = adapter_->convert(frames, count, rate);
    writeJoined(frames_.data(), frames_.size() / CHANNELS, std::exchange(join_, false));
    clock_.wrote(frames_.size() / CHANNELS);
}

void PcmStream::take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                     std::int64_t nowUs, const Emit& emit) {
    const auto sound = decoder_.decode(packet, step, [](const auto&) {});
    if (sound.count > 0) {
        const auto arrival = clock_.arrive(nowUs, sound.count, packet.sampleRate, step);
        writeSilence(arrival.silence);
        join_ = join_ || arrival.late || sound.join != vxlisten::Join::Continues;
        if (!arrival.late) {
            writeSound(sound.frames, sound.count, packet.sampleRate);
        }
    }
    deliver(emit);
}

void PcmStream::pass(std::int64_t nowUs, const Emit& emit) {
    writeSilence(clock_.pass(nowUs));
    deliver(emit);
}

void PcmStream::deliver(const Emit& emit) {
    if (!bytes_.empty()) {
        emit(std::make_shared<const std::string>(std::exchange(bytes_, {})));
    }
}

}  // namespace vxweb
