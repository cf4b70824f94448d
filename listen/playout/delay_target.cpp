#include "listen/playout/delay_target.h"

#include <algorithm>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr std::int64_t WINDOW_US = 10 * SECOND;
/// Weight that a packet keeps when the next one comes: the memory spans some 4000 packets.
constexpr double MEMORY = 1.0 - 1.0 / 4000.0;
constexpr double UNCOVERED = 0.002;  ///< Share of the packets that may come too late,
constexpr double EXCEPTIONS = 1.0;   ///< but so many at any rate.
constexpr double SAFETY_MS = 5;
constexpr double UNDERRUN_EXTRA_MS = 15;
constexpr double MAXIMUM_EXTRA_MS = 200;
constexpr double EXTRA_LOSS_PER_SECOND = 0.2;
/// After so many packets of a stream it begins to shrink.
constexpr double QUIET_PACKETS = 700;
constexpr double SHRINKING_PER_SECOND = 0.3;  ///< Milliseconds; what drift correction can follow.
constexpr std::int64_t DEMAND_SETTLING = SECOND;
constexpr double DEMAND_MEMORY = 5;  ///< Seconds over which the device's pace is averaged.
/// So little is left that the next late packet would be missed.
constexpr double DIP_MS = 2;
constexpr double DIP_EXTRA_MS = 3;
constexpr double DIP_INTERVAL = 1;  ///< Seconds.
constexpr double NEAR_MS = 3;

}  // namespace

void DelayTarget::restart() {
    started_ = false;
    lateness_.fill(0);
    total_ = 0;
    jitterMs_ = meanLateMs_ = 0;
    floor_ = start_;
}

void DelayTarget::noteArrival(std::int64_t mediaTime, std::int64_t arrival, double packetMs) {
    const std::int64_t transit = arrival - mediaTime;
    packetMs_ = packetMs;
    if (!started_) {
        started_ = true;
        earliest_ = earliestNow_ = transit;
        windowEnd_ = arrival + WINDOW_US;
    }
    earliestNow_ = std::min(earliestNow_, transit);
    earliest_ = std::min(earliest_, transit);
    if (arrival >= windowEnd_) {
        earliest_ = earliestNow_;
        earliestNow_ = transit;
        windowEnd_ = arrival + WINDOW_US;
    }
    const double latenessMs =
        static_cast<double>(transit - earliest_) / MICROSECONDS_PER_MILLISECOND;
    const bool sameDelay = static_cast<double>(arrival - lastArrival_) < packetMs * 500.0 &&
                           latenessMs < lastLatenessMs_;
    lastArrival_ = arrival;
    lastLatenessMs_ = latenessMs;
    if (!sameDelay) {
        count(latenessMs);
    }
}

void DelayTarget::count(double latenessMs) {
    for (double& bin : lateness_) {
        bin *= MEMORY;
    }
    total_ = total_ * MEMORY + 1;
    meanLateMs_ += (latenessMs - meanLateMs_) / total_;
    const auto bin = static_cast<std::size_t>(
        std::clamp(latenessMs * BINS_PER_MS, 0.0, static_cast<double>(BINS - 1)));
    lateness_[bin] += 1;
    const double allowed = std::max(EXCEPTIONS, UNCOVERED * total_);
    double late = 0;
    std::size_t i = BINS;
    while (i > 0 && (late += lateness_[i - 1]) <= allowed) {
        --i;
    }
    jitterMs_ = static_cast<double>(i) / BINS_PER_MS;
}

void DelayTarget::noteUnderrun() {
    extra_ = std::min(extra_ + UNDERRUN_EXTRA_MS, MAXIMUM_EXTRA_MS);
}

void DelayTarget::noteDemand(double asked, std::int64_t now, bool idle) {
    const double ahead = asked - static_cast<double>(now) / MICROSECONDS_PER_MILLISECOND;
    if (idle || demandStart_ < 0) {
        demandStart_ = now;
        demandMean_ = ahead;
    }
    const double share =
        static_cast<double>(now - lastDemand_) / MICROSECONDS_PER_SECOND / DEMAND_MEMORY;
    demandMean_ += (ahead - demandMean_) * std::clamp(share, 0.0, 1.0);
    lastDemand_ = now;
    if (now - demandStart_ >= DEMAND_SETTLING) {
        demand_ = std::max(demand_, ahead - demandMean_);
    }
}

void DelayTarget::noteDepth(double leftMs, double meanMs) {
    if (chosen_ || leftMs >= DIP_MS || sinceDip_ < DIP_INTERVAL ||
        meanMs < milliseconds() - NEAR_MS) {
        return;
    }
    extra_ = std::min(extra_ + DIP_EXTRA_MS, MAXIMUM_EXTRA_MS);
    sinceDip_ = 0;
}

void DelayTarget::pass(double seconds) {
    extra_ = std::max(0.0, extra_ - EXTRA_LOSS_PER_SECOND * seconds);
    demand_ = std::max(0.0, demand_ - EXTRA_LOSS_PER_SECOND * seconds);
    sinceDip_ += seconds;
    if (shrinkingPpm() > 0) {
        floor_ -= SHRINKING_PER_SECOND * seconds;
    }
}

double DelayTarget::repeatedMs() const {
    return std::max(0.0, extra_ - UNDERRUN_EXTRA_MS);
}

/// The mean depth has the mean lateness in it already. That is relied on for what a server's
/// capture makes packets wait, in which one is as long as another: up to a packet, half of it in
/// the mean.
double DelayTarget::neededMs() const {
    const double expected = std::min({meanLateMs_, jitterMs_ / 2, packetMs_ / 2});
    return jitterMs_ - expected + packetMs_ / 2 + demand_ + SAFETY_MS;
}

double DelayTarget::milliseconds() const {
    return std::clamp(std::max(floor_, neededMs()) + extra_, chosen_ ? MINIMUM_MS : packetMs_,
                      MAXIMUM_MS);
}

double DelayTarget::shrinkingPpm() const {
    const bool shrinking = !chosen_ && total_ >= QUIET_PACKETS && floor_ > neededMs();
    return shrinking ? SHRINKING_PER_SECOND * 1000.0 : 0.0;
}

}  // namespace vxlisten
