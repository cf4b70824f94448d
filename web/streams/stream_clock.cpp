#include "web/streams/stream_clock.h"

#include <algorithm>

#include "listen/clock.h"

namespace vxweb {

namespace {

using vxlisten::MILLISECOND;
using vxlisten::SECOND;

constexpr int DEFAULT_RATE = 48000;
/// Without a server a stream begins with silence after this time, or players would disconnect.
constexpr std::int64_t MAX_WAIT = 2 * SECOND;
/// How late packets may be before silence replaces them.
constexpr std::int64_t HOLD = 200 * MILLISECOND;
/// More silence at once would only fill the buffers of players, which are empty by then, and the
/// queues of listeners.
constexpr std::int64_t MAX_SILENCE = SECOND / 2;
/// How far the stream may be ahead of time before sound counts as late: after silence in its place,
/// and otherwise.
constexpr std::int64_t MAX_AHEAD_OF_SILENCE = 20 * MILLISECOND;
constexpr std::int64_t MAX_AHEAD = 250 * MILLISECOND;
/// A stream that lags for a whole window has lost time; a smaller lag is drift.
constexpr std::int64_t WINDOW = 2 * SECOND;
constexpr std::int64_t MAX_LAG = 50 * MILLISECOND;
constexpr std::int64_t MAX_DRIFT = WINDOW / 1000;

std::int64_t lengthOf(std::uint64_t frames, int rate) {
    return static_cast<std::int64_t>(frames) * SECOND / rate;
}

}  // namespace

std::int64_t StreamClock::reach() const {
    return origin_ + lengthOf(written_, rate_);
}

std::size_t StreamClock::framesIn(std::int64_t microseconds) const {
    const auto frames = std::max<std::int64_t>(0, microseconds) * rate_ / SECOND;
    return static_cast<std::size_t>(frames) / unit_ * unit_;
}

void StreamClock::wrote(std::size_t frames) {
    written_ += frames;
    const auto rate = static_cast<std::uint64_t>(rate_);
    origin_ += static_cast<std::int64_t>(written_ / rate) * SECOND;
    written_ %= rate;
}

void StreamClock::begin(std::int64_t now, int rate) {
    rate_ = rate_ > 0 ? rate_ : rate;
    origin_ = now;
    begun_ = true;
}

std::size_t StreamClock::fill(std::int64_t microseconds) {
    const std::int64_t excess = std::max<std::int64_t>(0, microseconds - MAX_SILENCE);
    origin_ += excess;
    const std::size_t frames = framesIn(microseconds - excess);
    wrote(frames);
    return frames;
}

std::size_t StreamClock::pass(std::int64_t now) {
    if (!begun_) {
        waitsSince_ = waitsSince_.value_or(now);
        if (now - *waitsSince_ < MAX_WAIT) {
            return 0;
        }
        begin(now - HOLD, DEFAULT_RATE);
        lastArrival_ = now - HOLD;
    }
    if (now - lastArrival_ <= HOLD) {
        return 0;
    }
    windowEnd_.reset();
    const std::size_t frames = fill(now - HOLD - reach());
    filled_ += frames;
    return frames;
}

// The minimum lag of a window is that of packets that were not delayed.
std::size_t StreamClock::settle(std::int64_t now, std::int64_t lag) {
    minimumLag_ = windowEnd_ ? std::min(minimumLag_, lag) : lag;
    windowEnd_ = windowEnd_.value_or(now + WINDOW);
    if (now < *windowEnd_) {
        return 0;
    }
    windowEnd_.reset();
    filled_ = 0;
    if (minimumLag_ > MAX_LAG) {
        return fill(minimumLag_);
    }
    origin_ += std::clamp(minimumLag_, -MAX_DRIFT, MAX_DRIFT);
    return 0;
}

StreamClock::Arrival StreamClock::arrive(std::int64_t now, std::size_t frames, int packetRate,
                                         const vxlisten::SequenceStep& step) {
    const std::int64_t begins = now - lengthOf(frames, packetRate);
    if (!begun_) {
        begin(begins, packetRate);
    }
    lastArrival_ = now;
    Arrival arrival;
    if (step.start) {
        filled_ = 0;
        windowEnd_.reset();
        arrival.silence = fill(begins - reach());
    } else if (step.missing > 0) {
        const std::size_t missing =
            framesIn(lengthOf(std::uint64_t{step.missing} * frames, packetRate));
        const std::size_t done = std::min(missing, filled_);
        filled_ -= done;
        const std::int64_t maximum = begins - reach() + MAX_AHEAD;
        arrival.silence = fill(std::min(lengthOf(missing - done, rate_) + 1, maximum));
    }
    const std::int64_t lag = begins - reach();
    if (lag < (filled_ > 0 ? -MAX_AHEAD_OF_SILENCE : -MAX_AHEAD)) {
        arrival.late = true;
        filled_ -= std::min(filled_, framesIn(now - begins));
        return arrival;
    }
    arrival.silence += settle(now, lag);
    return arrival;
}

}  // namespace vxweb
