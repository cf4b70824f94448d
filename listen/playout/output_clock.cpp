#include "listen/playout/output_clock.h"

#include <algorithm>
#include <cmath>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr std::int64_t SPAN = 500 * MILLISECOND;
/// After a longer pause the device's times have changed.
constexpr std::int64_t MAXIMUM_PAUSE = SECOND;
constexpr double MAXIMUM_LATENCY = 5 * MICROSECONDS_PER_SECOND;
/// A starting device requests much at once and then nothing.
constexpr double UNEVEN = 0.2;
/// After this many spans an uneven device is accepted.
constexpr unsigned MAXIMUM_UNEVEN_SPANS = 8;
/// Minimum number of spans for the slope.
constexpr std::size_t SLOPE_SPANS = 8;
constexpr double MAXIMUM_SLOPE = 500;

/// The middle one of `count` values, which it puts out of order.
double median(double* values, std::size_t count) {
    std::nth_element(values, values + count / 2, values + count);
    return values[count / 2];
}

}  // namespace

void OutputClock::restart() {
    origin_ = -1;
    spanCount_ = 0;
    spansSeen_ = 0;
}

void OutputClock::note(std::uint64_t frame, std::int64_t now, double latency) {
    const double time = static_cast<double>(frame) / rate_;
    if (origin_ >= 0 && now - latestCall_ > MAXIMUM_PAUSE) {
        restart();
    }
    latestCall_ = now;
    if (origin_ < 0) {
        origin_ = now;
        spanStart_ = now;
        spanStartTime_ = time;
        stampCount_ = nominalCount_ = 0;
    }
    if (now - spanStart_ >= SPAN) {
        finishSpan(now, time);
        spanStart_ = now;
        spanStartTime_ = time;
    }
    const double base = static_cast<double>(now - origin_) - time * MICROSECONDS_PER_SECOND;
    const bool known = latency > 0 && latency < MAXIMUM_LATENCY;
    latest_ = base + (known ? latency : nominal_);
    if (known && stampCount_ < MAXIMUM_STAMPS) {
        stamps_[stampCount_++] = base + latency;
    }
    if (nominalCount_ < MAXIMUM_STAMPS) {
        nominals_[nominalCount_++] = base + nominal_;
    }
}

void OutputClock::finishSpan(std::int64_t now, double time) {
    const double asked = (time - spanStartTime_) * MICROSECONDS_PER_SECOND;
    const auto passed = static_cast<double>(now - spanStart_);
    const bool even = std::abs(asked - passed) < UNEVEN * passed;
    ++spansSeen_;
    if (nominalCount_ > 0 && (even || spansSeen_ > MAXIMUM_UNEVEN_SPANS) && spansSeen_ > 1) {
        nominalOnly_ = 2 * stampCount_ < nominalCount_;
        if (spanCount_ == MAXIMUM_SPANS) {
            std::move(spans_.begin() + 1, spans_.end(), spans_.begin());
            --spanCount_;
        }
        spans_[spanCount_++] = {(spanStartTime_ + time) / 2,
                                nominalOnly_ ? median(nominals_.data(), nominalCount_)
                                             : median(stamps_.data(), stampCount_)};
        fit();
    }
    stampCount_ = nominalCount_ = 0;
}

/// The median of the slopes between any two spans, and the line with it that has as many spans
/// above as below.
void OutputClock::fit() {
    std::array<double, MAXIMUM_SPANS * MAXIMUM_SPANS / 2> slopes{};
    std::size_t count = 0;
    for (std::size_t i = 0; spanCount_ >= SLOPE_SPANS && i < spanCount_; ++i) {
        for (std::size_t j = i + 1; j < spanCount_; ++j) {
            slopes[count++] =
                (spans_[j].value - spans_[i].value) / (spans_[j].time - spans_[i].time);
        }
    }
    if (count > 0) {
        slope_ = std::clamp(median(slopes.data(), count), -MAXIMUM_SLOPE, MAXIMUM_SLOPE);
    }
    std::array<double, MAXIMUM_SPANS> offsets{};
    for (std::size_t i = 0; i < spanCount_; ++i) {
        offsets[i] = spans_[i].value - slope_ * spans_[i].time;
    }
    offset_ = median(offsets.data(), spanCount_);
}

double OutputClock::heardAt(double frame) const {
    const double time = frame / rate_;
    const double value = settled() ? offset_ + slope_ * time : latest_;
    return static_cast<double>(origin_) + time * MICROSECONDS_PER_SECOND + value;
}

}  // namespace vxlisten
