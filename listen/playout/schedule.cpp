#include "listen/playout/schedule.h"

#include <algorithm>
#include <cmath>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr double SAFETY_MS = 3;
constexpr double JUMP = 20000;  ///< Microseconds, more than the line moves otherwise.
/// By how much the maximum latency falls with each call.
constexpr double LATENCY_FALL_MS = 0.02;

}  // namespace

bool Schedule::jumps(const QueuedBlock& block) const {
    return known_ &&
           std::abs(block.sent.first - sentAt(static_cast<double>(block.position))) > JUMP;
}

void Schedule::noteBlock(const QueuedBlock& block) {
    known_ = block.sent.framePeriod > 0;
    position_ = static_cast<double>(block.position);
    sent_ = block.sent;
    sampleRate_ = block.sampleRate;
}

void Schedule::noteOutput(std::uint64_t frame, std::int64_t now, double latency) {
    clock_.note(frame, now, latency);
    const double heard = clock_.heardAt(static_cast<double>(frame));
    const double latencyMs = (heard - static_cast<double>(now)) / MICROSECONDS_PER_MILLISECOND;
    latencyMs_ = clock_.settled() ? std::max(latencyMs, latencyMs_ - LATENCY_FALL_MS) : 0.0;
}

double Schedule::sentAt(double position) const {
    return sent_.first + (position - position_) * sent_.framePeriod;
}

double Schedule::dueAt(double frame) const {
    const double sent =
        clock_.heardAt(frame) - (delayMs_ - settings_.offsetMs) * MICROSECONDS_PER_MILLISECOND;
    return position_ + (sent - sent_.first) / sent_.framePeriod;
}

double Schedule::delayMs(double position, double frame) const {
    return (clock_.heardAt(frame) - sentAt(position)) / MICROSECONDS_PER_MILLISECOND +
           settings_.offsetMs;
}

double Schedule::minimumMs(double jitterMs, double periodMs) const {
    return sent_.ahead / MICROSECONDS_PER_MILLISECOND + jitterMs + latencyMs_ + periodMs +
           SAFETY_MS + settings_.offsetMs;
}

bool Schedule::raiseToMinimum(double jitterMs, double periodMs) {
    const double needed = minimumMs(jitterMs, periodMs);
    const bool raised = needed > delayMs_;
    delayMs_ = std::max(delayMs_, needed);
    return raised;
}

void Schedule::raiseToNewest(double frame, double periodMs) {
    delayMs_ = std::max(delayMs_, delayMs(position_, frame) + periodMs + SAFETY_MS);
}

double Schedule::ratePpm() const {
    const double serverPpm = MICROSECONDS_PER_SECOND - sent_.framePeriod * sampleRate_;
    return serverPpm - clock_.devicePpm();
}

}  // namespace vxlisten
