#include "listen/timeline.h"

#include <algorithm>
#include <array>

namespace vxlisten {

namespace {

constexpr std::int64_t MICROSECONDS = 1000000;
/// What may arrive at once after a stall and so seems to be missing for longer than it was.
constexpr std::int64_t BURST_ALLOWANCE = 2 * MICROSECONDS;
constexpr std::size_t CHANNELS = 2;
constexpr std::size_t PIECE_FRAMES = 480;

std::uint64_t framesIn(std::int64_t microseconds, int rate) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, microseconds)) *
           static_cast<std::uint64_t>(rate) / MICROSECONDS;
}

}  // namespace

std::uint64_t Timeline::missingFrames(const AudioPacket& packet, const SequenceStep& step,
                                      std::int64_t now) const {
    const std::int64_t elapsed = now - lastArrival_;
    if (step.arrival == Arrival::Start && started_) {
        const std::uint64_t frames = framesIn(elapsed, packet.sampleRate);
        return frames > packet.frames ? frames - packet.frames : 0;
    }
    if (step.arrival == Arrival::AfterGap) {
        return std::min<std::uint64_t>(step.missing * packet.frames,
                                       framesIn(elapsed + BURST_ALLOWANCE, packet.sampleRate));
    }
    return 0;
}

PcmSink* Timeline::take(const AudioPacket& packet, const SequenceStep& step, std::int64_t now) {
    if (step.arrival == Arrival::Late || step.arrival == Arrival::Duplicate) {
        return nullptr;
    }
    if (step.arrival == Arrival::Start) {
        decoder_.reset();
    }
    const std::uint64_t missing = missingFrames(packet, step, now);
    started_ = true;
    lastArrival_ = now;
    if (PcmSink* const stopped = fill(missing, packet.sampleRate)) {
        return stopped;
    }
    std::array<std::int16_t, StreamDecoder::MAX_FRAMES * CHANNELS> frames;
    const std::size_t count = decoder_.decode(packet, frames.data());
    if (count == 0) {
        damaged_ += packet.frames > 0 ? 1 : 0;
        return fill(packet.frames, packet.sampleRate);
    }
    level_.add(frames.data(), count);
    recentLevel_.add(frames.data(), count);
    framesDecoded_ += count;
    return hand(frames.data(), count, packet.sampleRate);
}

PcmSink* Timeline::fill(std::uint64_t frames, int rate) {
    static constexpr std::array<std::int16_t, PIECE_FRAMES * CHANNELS> SILENCE{};
    framesFilled_ += frames;
    while (frames > 0) {
        const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(frames, PIECE_FRAMES));
        if (PcmSink* const stopped = hand(SILENCE.data(), piece, rate)) {
            return stopped;
        }
        frames -= piece;
    }
    return nullptr;
}

PcmSink* Timeline::hand(const std::int16_t* frames, std::size_t count, int rate) {
    for (PcmSink* const sink : sinks_) {
        if (sink->write(frames, count, rate) != SinkState::Open) {
            return sink;
        }
    }
    return nullptr;
}

}  // namespace vxlisten
