#include "listen/sinks/timeline.h"

#include <algorithm>
#include <array>

#include "listen/clock.h"

namespace vxlisten {

namespace {

/// Sound that may arrive at once after a stall, and so seems to be missing for longer.
constexpr std::int64_t BURST_ALLOWANCE = 2 * SECOND;
/// A server's clock may run faster than this machine's by one part in this many.
constexpr std::int64_t CLOCK_TOLERANCE = 1000;
/// Silence is delayed by this time: the next connection's first packet may contain its sound.
constexpr std::int64_t PASS_MARGIN = 100 * MILLISECOND;
constexpr std::size_t CHANNELS = 2;
constexpr std::size_t PIECE_FRAMES = 480;

std::uint64_t framesIn(std::int64_t microseconds, int rate) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, microseconds)) *
           static_cast<std::uint64_t>(rate) / SECOND;
}

std::int64_t lengthOf(std::uint64_t frames, int rate) {
    return rate > 0 ? static_cast<std::int64_t>(frames) * SECOND / rate : 0;
}

}  // namespace

std::int64_t Timeline::reach() const {
    return rateStart_ + lengthOf(rateFrames_, rate_);
}

void Timeline::begin(const AudioPacket& packet, std::int64_t now) {
    if (!started_) {
        start_ = rateStart_ = now - lengthOf(packet.frames, packet.sampleRate);
    } else if (packet.sampleRate != rate_) {
        rateStart_ = reach();
        rateFrames_ = 0;
    }
    started_ = true;
    rate_ = packet.sampleRate;
}

// Not from the time since the packet before: that may have waited for a slow disk or pipe.
std::uint64_t Timeline::maximumFill(const AudioPacket& packet, std::int64_t now) const {
    const std::int64_t allowance = BURST_ALLOWANCE + (now - start_) / CLOCK_TOLERANCE;
    return framesIn(now - reach() + allowance, packet.sampleRate);
}

std::uint64_t Timeline::missingFrames(const AudioPacket& packet, const SequenceStep& step,
                                      std::int64_t now) const {
    if (!step.start) {
        return std::min<std::uint64_t>(step.missing * packet.frames, maximumFill(packet, now));
    }
    const std::uint64_t elapsed =
        started_ ? framesIn(now - lastArrival_, packet.sampleRate) : packet.frames;
    return elapsed - std::min<std::uint64_t>(elapsed, packet.frames);
}

PcmSink* Timeline::take(const AudioPacket& packet, const SequenceStep& step,
                        const DecodedBlock& sound, std::int64_t now) {
    const std::uint64_t missing = missingFrames(packet, step, now);
    begin(packet, now);
    lastArrival_ = now;
    if (PcmSink* const stopped = fill(missing, packet.sampleRate)) {
        return stopped;
    }
    if (sound.count == 0) {
        damaged_ += packet.frames > 0 ? 1 : 0;
        return fill(packet.frames, packet.sampleRate);
    }
    level_.add(sound.frames, sound.count);
    recentLevel_.add(sound.frames, sound.count);
    framesDecoded_ += sound.count;
    return hand(sound.frames, sound.count, packet.sampleRate);
}

PcmSink* Timeline::pass(std::int64_t now) {
    const std::int64_t due = std::min(now - PASS_MARGIN - lastArrival_, SECOND);
    if (!started_ || due <= 0) {
        return nullptr;
    }
    const std::uint64_t frames = framesIn(due, rate_);
    lastArrival_ += lengthOf(frames, rate_);
    return fill(frames, rate_);
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
    rateFrames_ += count;
    for (PcmSink* const sink : sinks_) {
        if (sink->write(frames, count, rate) != SinkState::Open) {
            return sink;
        }
    }
    return nullptr;
}

}  // namespace vxlisten
