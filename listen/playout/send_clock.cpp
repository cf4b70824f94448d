#include "listen/playout/send_clock.h"

#include <algorithm>
#include <cmath>

#include "listen/clock.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

/// Longer than 337 packets, after which blocks of 337 frames coincide with packets again.
constexpr double SPAN_SECONDS = 2.5;
constexpr std::size_t RECENT_SPANS = 3;
/// Clocks differ so much, usually, and never by more than the maximum slope (ppm).
constexpr double USUAL_SLOPE = 150;
constexpr double MAXIMUM_SLOPE = 500;
/// How much the slope may change with a span, after this many seconds; later less.
constexpr double SLOPE_CHANGE = 400;
constexpr double SLOPE_CHANGE_SECONDS = 5;
constexpr double MINIMUM_SLOPE_CHANGE = 1;
constexpr double ERRORS = 2;  ///< It may always change by this many standard errors.
/// How much later than the line all recent packets must be before it is abandoned (microseconds),
/// in addition to this multiple of their noise.
constexpr double SHIFT = 1000;
constexpr double JUMP = 30000;
constexpr double NOISES = 3;
constexpr double SPAN_NOISE = 1;  ///< Of the earliest arrival of a span.
constexpr double JUMP_SECONDS = 1;
constexpr double KNOWN_SECONDS = 10;
/// Of times that have several reasons to be longer than they could be, the one at place n lies
/// above that about as n to this power; the first one by this share of it.
constexpr double PLACE_POWER = 0.4;
constexpr double FIRST_PLACE = 0.9;
constexpr std::size_t LAST_PLACE = 8;
/// Minimum number of spans for that. Where arrivals vary by more than this (microseconds), it is
/// used from the first span on: how long the earliest packet waited then matters more than the
/// uncertain slope.
constexpr std::size_t EXTRAPOLATED_SPANS = 6;
constexpr double MUCH_NOISE = 2500;
/// Frames that Opus's encoder holds back.
constexpr double OPUS_LOOK_AHEAD = 312;
/// Compressed packets leave after the raw pass of the same callback, which ends with a wait of up
/// to 1 ms for the network, mostly all of it: the earliest ones of ten seconds waited for 0.8 ms,
/// those of a minute for 0.2 ms.
constexpr double SECOND_PASS = 500;

/// The minimum that `count` values can come down to: even the smallest of them had to wait, and how
/// far the next ones lie from it tells how long, up to `maximum`. Puts them in order.
double extrapolatedMinimum(double* values, std::size_t count, double maximum) {
    const std::size_t used = std::min(count, LAST_PLACE);
    std::partial_sort(values, values + used, values + count);
    const double places = std::pow(static_cast<double>(used), PLACE_POWER) - FIRST_PLACE;
    return values[0] - std::min(maximum, (values[used - 1] - values[0]) * FIRST_PLACE / places);
}

/// How much earlier than its packet the first frame of a block counts as sent, in frames.
double leadOf(const AudioPacket& packet) {
    return packet.compressedPass()
               ? static_cast<double>(wire::OPUS_FRAME_SAMPLES) - wire::RAW_BLOCK_FRAMES
               : 0.0;
}

/// Frames that a compressed packet had to wait for until a raw one was full, which is when it is
/// sent: both are numbered from the beginning of the capture.
double waitOf(const AudioPacket& packet) {
    if (!packet.compressedPass()) {
        return 0;
    }
    const std::uint64_t over =
        (std::uint64_t{packet.seq} + 1) * wire::OPUS_FRAME_SAMPLES % wire::RAW_BLOCK_FRAMES;
    return over > 0 ? static_cast<double>(wire::RAW_BLOCK_FRAMES - over) : 0.0;
}

}  // namespace

void SendClock::restart(std::int64_t now) {
    origin_ = now;
    position_ = 0;
    slope_ = 0;
    age_ = 0;
    forgetArrivals();
    spans_[0] = Span();
}

/// Keeps the round trips: the network may be as before.
void SendClock::forgetArrivals() {
    Least<3> roundTrips;
    for (std::size_t i = 0; i <= spanCount_; ++i) {
        for (std::size_t place = 0; place < 3; ++place) {
            roundTrips.add(spans_[i].roundTrips[place]);
        }
    }
    spanCount_ = 0;
    spans_[0] = Span();
    spans_[0].roundTrips = roundTrips;
    lateSince_ = -1;
}

SendTime SendClock::next(const DecodedBlock& block, const AudioPacket& packet, std::int64_t now) {
    if (block.count == 0) {
        return {};
    }
    if (block.join == Join::NewStream) {
        restart(now);
    }
    sampleRate_ = block.sampleRate;
    const double lead = leadOf(packet);
    if (!block.concealed) {
        const double time = (position_ + lead + waitOf(packet)) / sampleRate_;
        noteArrival(time, static_cast<double>(now - origin_) - time * MICROSECONDS_PER_SECOND);
    }
    const double held = packet.encoding == Encoding::Opus ? OPUS_LOOK_AHEAD : 0.0;
    const double extra = (packet.compressedPass() ? SECOND_PASS : 0.0) + halfRoundTrip();
    const double time = (position_ - held) / sampleRate_;
    position_ += static_cast<double>(block.count);
    SendTime result;
    result.framePeriod = (MICROSECONDS_PER_SECOND + slope_) / sampleRate_;
    result.ahead = (lead + held) * result.framePeriod + extra;
    result.first =
        static_cast<double>(origin_) + time * MICROSECONDS_PER_SECOND + lineAt(time) - extra;
    return result;
}

void SendClock::noteRoundTrip(double roundTrip) {
    spans_[spanCount_].roundTrips.add(roundTrip);
    lateTrip_ = std::min(lateTrip_, roundTrip);
}

void SendClock::noteArrival(double time, double residual) {
    if (spans_[spanCount_].packets > 0 && time >= spanEnd_) {
        finishSpan(time);
    }
    if (isJump(time, residual)) {
        jumps_ += age_ >= KNOWN_SECONDS ? 1 : 0;
        const double early = lineAt(time) - residual;
        forgetArrivals();
        if (early > 0 && early < spans_[0].roundTrips[0]) {
            spans_[0] = Span();  // The network may have become quicker.
        }
    }
    Span& span = spans_[spanCount_];
    if (span.packets == 0) {
        spanEnd_ = time + SPAN_SECONDS;
    }
    if (span.residuals.add(residual)) {
        span.time = time;
    }
    ++span.packets;
    fitOffset();
}

bool SendClock::isJump(double time, double residual) {
    if (spanCount_ == 0 && spans_[0].packets == 0) {
        return false;
    }
    const double late = residual - lineAt(time);
    const double limit = JUMP + NOISES * noise();
    if (std::abs(late) < limit) {
        lateSince_ = -1;
        return false;
    }
    if (late < 0) {
        return true;
    }
    // Packets in a burst after a stall are less and less late.
    const double arrival = time + residual / MICROSECONDS_PER_SECOND;
    if (lateSince_ < 0 || late < lateFirst_ - limit) {
        lateSince_ = arrival;
        lateFirst_ = lateMinimum_ = late;
        lateTrip_ = NONE;
    }
    lateMinimum_ = std::min(lateMinimum_, late);
    if (arrival - lateSince_ < JUMP_SECONDS) {
        return false;
    }
    // When the network has become slower, the round trip is longer, too.
    const double before = minimumRoundTrip(0, spanCount_ + 1);
    return lateTrip_ == NONE || lateTrip_ - before < lateMinimum_ / 2;
}

void SendClock::finishSpan(double time) {
    const double span = std::max(SPAN_SECONDS, time - spanEnd_ + SPAN_SECONDS);
    if (spanCount_ == MAXIMUM_SPANS) {
        std::move(spans_.begin() + 1, spans_.end(), spans_.begin());
        --spanCount_;
    }
    ++spanCount_;
    age_ += span;
    judgeRecent();
    spans_[spanCount_] = Span();
    fitOffset();  // Late in a stream, another slope alone would move the line far.
}

/// Checks whether all recent packets are late. If the network has become slower, the line stays; if
/// the server sends later, as after lost sound, only packets since then count.
void SendClock::judgeRecent() {
    if (spanCount_ <= RECENT_SPANS) {
        fitSlope();
        return;
    }
    const std::size_t first = spanCount_ - RECENT_SPANS;
    double excess = spans_[first].least() - lineAt(spans_[first].time);
    for (std::size_t i = first + 1; i < spanCount_; ++i) {
        excess = std::min(excess, spans_[i].least() - lineAt(spans_[i].time));
    }
    if (excess < SHIFT + NOISES * noise()) {
        fitSlope();
        return;
    }
    const double before = minimumRoundTrip(0, first);
    const double since = minimumRoundTrip(first, spanCount_);
    // Of a way that is slower in one direction the round trip shows the excess once, else twice.
    if (before == NONE || since == NONE || since - before < excess / 2) {
        std::move(spans_.begin() + static_cast<std::ptrdiff_t>(first),
                  spans_.begin() + static_cast<std::ptrdiff_t>(spanCount_), spans_.begin());
        spanCount_ = RECENT_SPANS;
    }
}

/// The slope of the line under all spans that comes nearest to them: the edge of their convex hull
/// below their mean time. `extent` becomes its length in seconds.
double SendClock::rawSlope(double& extent) const {
    std::array<std::size_t, MAXIMUM_SPANS> hull{};
    std::size_t size = 0;
    double mean = 0;
    for (std::size_t i = 0; i < spanCount_; ++i) {
        const Span& point = spans_[i];
        mean += point.time / static_cast<double>(spanCount_);
        while (size >= 2) {
            const Span& a = spans_[hull[size - 2]];
            const Span& b = spans_[hull[size - 1]];
            if ((b.least() - a.least()) * (point.time - a.time) <
                (point.least() - a.least()) * (b.time - a.time)) {
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
    return (to.least() - from.least()) / extent;
}

/// The spread of the earliest arrivals of a span: the larger, the less reliable is the span.
double SendClock::noise() const {
    double sum = 0;
    for (std::size_t i = 0; i < spanCount_; ++i) {
        sum += spans_[i].residuals.spread();
    }
    return spanCount_ > 0 ? sum / static_cast<double>(spanCount_) : SHIFT;
}

void SendClock::fitSlope() {
    if (spanCount_ < 2) {
        return;
    }
    double extent = 0;
    const double raw = rawSlope(extent);
    const double error = noise() * SPAN_NOISE * 2.0 / static_cast<double>(spanCount_) / extent;
    const double usual = USUAL_SLOPE * USUAL_SLOPE;
    const double wanted =
        std::clamp(raw * usual / (usual + error * error), -MAXIMUM_SLOPE, MAXIMUM_SLOPE);
    const double share = SLOPE_CHANGE_SECONDS / age_;
    const double change =
        std::max({MINIMUM_SLOPE_CHANGE, SLOPE_CHANGE * share * share, ERRORS * error});
    slope_ = std::clamp(wanted, slope_ - change, slope_ + change);
}

void SendClock::fitOffset() {
    std::array<double, PLACES*(MAXIMUM_SPANS + 1)> residuals{};
    std::size_t count = 0;
    for (std::size_t i = 0; i <= spanCount_; ++i) {
        const double drift = slope_ * spans_[i].time;
        for (std::size_t place = 0; place < PLACES; ++place) {
            residuals[count] = spans_[i].residuals[place] - drift;
            count += spans_[i].residuals[place] < NONE ? 1 : 0;
        }
    }
    const double maximum = noise();
    const std::size_t needed = maximum > MUCH_NOISE ? 1 : EXTRAPOLATED_SPANS;
    offset_ = spanCount_ < needed ? *std::min_element(residuals.begin(), residuals.begin() + count)
                                  : extrapolatedMinimum(residuals.data(), count, maximum);
}

double SendClock::minimumRoundTrip(std::size_t from, std::size_t to) const {
    double least = NONE;
    for (std::size_t i = from; i < to; ++i) {
        least = std::min(least, spans_[i].roundTrips[0]);
    }
    return least;
}

double SendClock::halfRoundTrip() const {
    std::array<double, 3 * (MAXIMUM_SPANS + 1)> trips{};
    std::size_t count = 0;
    double spread = 0;
    // The smallest of the few in a span that has just begun are not small.
    for (std::size_t i = 0; i < std::max<std::size_t>(spanCount_, 1); ++i) {
        const auto& found = spans_[i].roundTrips;
        spread = std::max(spread, found.spread());
        for (std::size_t place = 0; place < 3; ++place) {
            trips[count] = found[place];
            count += found[place] < NONE ? 1 : 0;
        }
    }
    return count > 0 ? std::max(0.0, extrapolatedMinimum(trips.data(), count, spread)) / 2.0 : 0.0;
}

}  // namespace vxlisten
