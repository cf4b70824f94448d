#include "listen/playout/send_clock.h"

#include <algorithm>
#include <cmath>

#include "stream/wire_format.h"

namespace vxlisten {

namespace {

constexpr double MICROSECONDS = 1e6;
/// Longer than the 337 packets after which blocks of 337 frames fall together with packets again.
constexpr double SPAN_SECONDS = 2.5;
constexpr std::size_t RECENT_SPANS = 3;
/// Clocks differ so much, usually, and never by more than the greatest slope (ppm).
constexpr double USUAL_SLOPE = 150;
constexpr double GREATEST_SLOPE = 500;
/// How much the slope may change with a span after so many seconds; less as it gets better known.
constexpr double SLOPE_CHANGE = 400;
constexpr double SLOPE_CHANGE_SECONDS = 5;
constexpr double LEAST_SLOPE_CHANGE = 1;
/// What all recent packets are later than the line before it is given up (microseconds), in
/// addition to so many gaps between the two earliest arrivals of a span.
constexpr double SHIFT = 1000;
constexpr double JUMP = 30000;
constexpr double GAPS = 3;
constexpr double JUMP_SECONDS = 1;
constexpr double KNOWN_SECONDS = 10;
/// Frames that Opus's encoder holds back.
constexpr double OPUS_LOOK_AHEAD = 312;
/// Compressed packets leave after the raw pass of the same callback, which ends with a wait of up
/// to 1 ms for the network, and after their encoding.
constexpr double SECOND_PASS = 1200;

/// How much earlier than its packet the first frame of a block counts as sent, in microseconds.
double leadOf(Encoding encoding, std::size_t frames, double framePeriod) {
    if (encoding == Encoding::Raw) {
        return 0;
    }
    const double more = static_cast<double>(frames) - static_cast<double>(wire::RAW_BLOCK_FRAMES) +
                        (encoding == Encoding::Opus ? OPUS_LOOK_AHEAD : 0.0);
    return more * framePeriod + SECOND_PASS;
}

}  // namespace

void SendClock::restart(std::int64_t now) {
    origin_ = now;
    position_ = 0;
    slope_ = 0;
    age_ = 0;
    forgetSpans();
    spans_[0].roundTrip = NO_ROUND_TRIP;
}

void SendClock::forgetSpans() {
    const double roundTrip = leastRoundTrip(0, spanCount_ + 1);
    spanCount_ = 0;
    spans_[0] = Span();
    spans_[0].roundTrip = roundTrip;
    lateSince_ = -1;
}

SendTime SendClock::next(const DecodedBlock& block, Encoding encoding, std::int64_t now) {
    if (block.count == 0) {
        return {};
    }
    if (block.join == Join::NewStream) {
        restart(now);
    }
    sampleRate_ = block.sampleRate;
    const double time = position_ / sampleRate_;
    if (!block.concealed) {
        noteArrival(time, static_cast<double>(now - origin_) - time * MICROSECONDS);
    }
    position_ += static_cast<double>(block.count);
    SendTime result;
    result.framePeriod = (MICROSECONDS + slope_) / sampleRate_;
    result.ahead = leadOf(encoding, block.count, result.framePeriod) + halfRoundTrip();
    result.first = static_cast<double>(origin_) + time * MICROSECONDS + lineAt(time) - result.ahead;
    return result;
}

void SendClock::noteRoundTrip(double roundTrip) {
    spans_[spanCount_].roundTrip = std::min(spans_[spanCount_].roundTrip, roundTrip);
    lateTrip_ = std::min(lateTrip_, roundTrip);
}

void SendClock::noteArrival(double time, double residual) {
    if (spans_[spanCount_].packets > 0 && time >= spanEnd_) {
        finishSpan(time);
    }
    if (isJump(time, residual)) {
        jumps_ += age_ >= KNOWN_SECONDS ? 1 : 0;
        forgetSpans();
    }
    Span& span = spans_[spanCount_];
    if (span.packets == 0) {
        span.second = residual + SHIFT;
        spanEnd_ = time + SPAN_SECONDS;
    }
    if (span.packets == 0 || residual < span.least) {
        span.second = span.packets == 0 ? span.second : span.least;
        span.least = residual;
        span.time = time;
    } else {
        span.second = std::min(span.second, residual);
    }
    ++span.packets;
    fitOffset();
}

bool SendClock::isJump(double time, double residual) {
    if (spanCount_ == 0 && spans_[0].packets == 0) {
        return false;
    }
    const double late = residual - lineAt(time);
    const double limit = JUMP + GAPS * meanGap();
    if (std::abs(late) < limit) {
        lateSince_ = -1;
        return false;
    }
    if (late < 0) {
        return true;
    }
    if (lateSince_ < 0) {
        lateSince_ = time;
        lateLeast_ = late;
        lateTrip_ = NO_ROUND_TRIP;
    }
    lateLeast_ = std::min(lateLeast_, late);
    if (time - lateSince_ < JUMP_SECONDS) {
        return false;
    }
    // Where the way has become longer, the round trip has too.
    const double before = leastRoundTrip(0, spanCount_ + 1);
    return lateTrip_ == NO_ROUND_TRIP || lateTrip_ - before < lateLeast_ / 2;
}

void SendClock::finishSpan(double time) {
    const double span = std::max(SPAN_SECONDS, time - spanEnd_ + SPAN_SECONDS);
    if (spanCount_ == MOST_SPANS) {
        std::move(spans_.begin() + 1, spans_.end(), spans_.begin());
        --spanCount_;
    }
    ++spanCount_;
    age_ += span;
    judgeRecent();
    spans_[spanCount_] = Span();
}

/// Finds out whether all that came of late is later than it should be: when the way has become
/// longer, the line stays; when the server sends later, as after sound that it has lost, only what
/// came since then counts.
void SendClock::judgeRecent() {
    if (spanCount_ <= RECENT_SPANS) {
        fitSlope();
        return;
    }
    const std::size_t first = spanCount_ - RECENT_SPANS;
    double excess = spans_[first].least - lineAt(spans_[first].time);
    for (std::size_t i = first + 1; i < spanCount_; ++i) {
        excess = std::min(excess, spans_[i].least - lineAt(spans_[i].time));
    }
    if (excess < SHIFT + GAPS * meanGap()) {
        fitSlope();
        return;
    }
    const double before = leastRoundTrip(0, first);
    const double since = leastRoundTrip(first, spanCount_);
    if (before == NO_ROUND_TRIP || since == NO_ROUND_TRIP || since - before < excess) {
        std::move(spans_.begin() + static_cast<std::ptrdiff_t>(first),
                  spans_.begin() + static_cast<std::ptrdiff_t>(spanCount_), spans_.begin());
        spanCount_ = RECENT_SPANS;
    }
}

/// The slope of the line under all spans that comes nearest to them: the edge of their convex hull
/// below their mean time. `extent` becomes its length in seconds.
double SendClock::rawSlope(double& extent) const {
    std::array<std::size_t, MOST_SPANS> hull{};
    std::size_t size = 0;
    double mean = 0;
    for (std::size_t i = 0; i < spanCount_; ++i) {
        const Span& point = spans_[i];
        mean += point.time / static_cast<double>(spanCount_);
        while (size >= 2) {
            const Span& a = spans_[hull[size - 2]];
            const Span& b = spans_[hull[size - 1]];
            if ((b.least - a.least) * (point.time - a.time) <
                (point.least - a.least) * (b.time - a.time)) {
                break;
            }
            --size;
        }
        hull[size++] = i;
    }
    std::size_t edge = 1;
    while (edge + 1 < size && spans_[hull[edge]].time < mean) {
        ++edge;
    }
    const Span& from = spans_[hull[edge - 1]];
    const Span& to = spans_[hull[edge]];
    extent = to.time - from.time;
    return (to.least - from.least) / extent;
}

/// How far the two earliest arrivals of a span lie apart: the greater, the less a span tells.
double SendClock::meanGap() const {
    double sum = 0;
    for (std::size_t i = 0; i < spanCount_; ++i) {
        sum += spans_[i].second - spans_[i].least;
    }
    return spanCount_ > 0 ? sum / static_cast<double>(spanCount_) : SHIFT;
}

void SendClock::fitSlope() {
    if (spanCount_ < 2) {
        return;
    }
    double extent = 0;
    const double raw = rawSlope(extent);
    const double error = meanGap() * 2.0 / static_cast<double>(spanCount_) / extent;
    const double usual = USUAL_SLOPE * USUAL_SLOPE;
    const double wanted =
        std::clamp(raw * usual / (usual + error * error), -GREATEST_SLOPE, GREATEST_SLOPE);
    const double share = SLOPE_CHANGE_SECONDS / age_;
    const double change = std::max(LEAST_SLOPE_CHANGE, SLOPE_CHANGE * share * share);
    slope_ = std::clamp(wanted, slope_ - change, slope_ + change);
}

void SendClock::fitOffset() {
    offset_ = spans_[spanCount_].least - slope_ * spans_[spanCount_].time;
    for (std::size_t i = 0; i < spanCount_; ++i) {
        offset_ = std::min(offset_, spans_[i].least - slope_ * spans_[i].time);
    }
}

double SendClock::leastRoundTrip(std::size_t from, std::size_t to) const {
    double least = NO_ROUND_TRIP;
    for (std::size_t i = from; i < to; ++i) {
        least = std::min(least, spans_[i].roundTrip);
    }
    return least;
}

double SendClock::halfRoundTrip() const {
    const double least = leastRoundTrip(0, spanCount_ + 1);
    return least < NO_ROUND_TRIP ? least / 2.0 : 0.0;
}

}  // namespace vxlisten
