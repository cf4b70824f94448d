#include "listen/playout/delay_target.h"

#include <algorithm>

namespace vxlisten {

namespace {

constexpr std::int64_t WINDOW_US = 10'000'000;
/// Weight that a packet keeps when the next one comes: the memory spans some 4000 packets.
constexpr double MEMORY = 1.0 - 1.0 / 4000.0;
constexpr double UNCOVERED = 0.002;  ///< Share of the packets that may come too late,
constexpr double EXCEPTIONS = 1.0;   ///< but so many at any rate.
constexpr double SAFETY_MS = 5;
constexpr double UNDERRUN_EXTRA_MS = 15;
constexpr double MOST_EXTRA_MS = 200;
constexpr double EXTRA_LOSS_PER_SECOND = 0.2;

}  // namespace

void DelayTarget::restart() {
    started_ = false;
    lateness_.fill(0);
    total_ = 0;
    jitterMs_ = 0;
}

void DelayTarget::noteArrival(std::int64_t mediaTime, std::int64_t arrival, double packetMs) {
    const std::int64_t transit = arrival - mediaTime;
    packetMs_ = packetMs;
    if (!started_) {
        started_ = true;
        quickest_ = quickestNow_ = transit;
        windowEnd_ = arrival + WINDOW_US;
    }
    quickestNow_ = std::min(quickestNow_, transit);
    quickest_ = std::min(quickest_, transit);
    if (arrival >= windowEnd_) {
        quickest_ = quickestNow_;
        quickestNow_ = transit;
        windowEnd_ = arrival + WINDOW_US;
    }
    const double latenessMs = static_cast<double>(transit - quickest_) / 1000.0;
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
    const auto bin =
        static_cast<std::size_t>(std::clamp(latenessMs, 0.0, static_cast<double>(BINS - 1)));
    lateness_[bin] += 1;
    const double allowed = std::max(EXCEPTIONS, UNCOVERED * total_);
    double late = 0;
    std::size_t i = BINS;
    while (i > 0 && (late += lateness_[i - 1]) <= allowed) {
        --i;
    }
    jitterMs_ = static_cast<double>(i);
}

void DelayTarget::noteUnderrun() {
    extra_ = std::min(extra_ + UNDERRUN_EXTRA_MS, MOST_EXTRA_MS);
}

void DelayTarget::pass(double seconds) {
    extra_ = std::max(0.0, extra_ - EXTRA_LOSS_PER_SECOND * seconds);
}

double DelayTarget::milliseconds() const {
    const double needed = jitterMs_ + packetMs_ + SAFETY_MS;
    return std::clamp(std::max(chosen_, needed) + extra_, LEAST_MS, MOST_MS);
}

}  // namespace vxlisten
