#include "listen/playout/playout.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "listen/clock.h"
#include "listen/playout/step_control.h"

namespace vxlisten {

namespace {

constexpr double CONTROL_INTERVAL = 0.25;  ///< Seconds.
constexpr double DEPTH_MEMORY = 2.0;       ///< Seconds over which the depth is averaged.
constexpr double MAXIMUM_STEP = 1.0;       ///< Seconds; a longer pause of the device is cut to it.
constexpr double MINIMUM_EXCESS_MS = 40;
constexpr double EXCESS_SHARE = 0.5;
constexpr double MS = 1000;
// Much less sound than the target is corrected by stretching, since drift correction is slow.
constexpr double MAXIMUM_SHORTAGE_MS = 15;
constexpr double SHORTAGE_SHARE = 0.3;
constexpr double SMALL_SHORTAGE_MS = 4;
constexpr unsigned STRETCH_INTERVAL = 8;  ///< Packets.
// With a fixed delay, sound that is further off than can be steered is aligned again.
constexpr double SETTLING_INTERVAL = 0.1;
constexpr double MAXIMUM_SETTLING_LATE_MS = 10;
constexpr double MAXIMUM_LATE_MS = 40;
constexpr double MINIMUM_PLACED = 1;  ///< Seconds.
/// The delay is raised only after more extra milliseconds of repeated underruns: a stall or two of
/// the server must not put a listener out of step.
constexpr double OFTEN_MS = 20;
constexpr double REPEATED_SHARE = 0.25;
constexpr double LATE_SECONDS = 1.5;  ///< Longer than the detection of a jump.
constexpr double MAXIMUM_LATE_SECONDS = 3;
/// A raised delay is lowered again when the chosen one has been possible for so long, in which the
/// line of the earliest arrivals forgets what was before.
constexpr double LOWERING_SECONDS = 120;
constexpr double LOWERING_MARGIN_MS = 5;
/// Blocks to count in a call: once an old stream is over, seconds of the new one wait.
constexpr std::size_t MAXIMUM_ARRIVALS = 64;
constexpr double MAXIMUM_PAUSE_SECONDS = 0.1;  ///< Seconds that count as late; a stall does not.

void increment(std::atomic<std::uint64_t>& counter, std::uint64_t by = 1) {
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

double toMs(std::size_t frames, int rate) {
    return rate > 0 ? 1000.0 * static_cast<double>(frames) / rate : 0.0;
}

}  // namespace

std::shared_ptr<BlockQueue> Playout::makeQueue(const PlayoutSettings& settings) {
    return std::make_shared<BlockQueue>(settings.delayMs.value_or(0) / MS);
}

Playout::Playout(int deviceRate, const PlayoutSettings& settings, double latencyMs,
                 std::shared_ptr<BlockQueue> queue)
    : deviceRate_(deviceRate),
      queue_(queue != nullptr ? std::move(queue) : makeQueue(settings)),
      target_(settings.bufferMs, settings.bufferChosen),
      schedule_(deviceRate, settings, latencyMs),
      resampler_(deviceRate),
      chosenMs_(settings.delayMs.value_or(PlayoutFigures::NOT_KNOWN)) {
    figures_.targetMs = target_.milliseconds();
    queue_->changeReader();
}

void Playout::render(std::int16_t* output, std::size_t frames, std::int64_t now, double latency) {
    callSeconds_ =
        lastRender_ < 0
            ? 0.0
            : std::clamp(static_cast<double>(now - lastRender_) / MICROSECONDS_PER_SECOND, 0.0,
                         MAXIMUM_STEP);
    lastRender_ = now;
    sinceLate_ += callSeconds_;
    periodMs_ = toMs(frames, deviceRate_);
    takeArrivals();
    target_.noteDemand(toMs(rendered_, deviceRate_), now, source_.pausing());
    target_.pass(callSeconds_);
    schedule_.noteOutput(rendered_, now, latency);
    while (frames > 0) {
        const std::size_t piece = std::min(frames, SteeredResampler::MAXIMUM_TAKEN);
        if (schedule_.kept()) {
            startWhenDue(piece);
        } else {
            watchStart(piece);
        }
        produce(piece);
        resampler_.take(output, piece);
        rendered_ += piece;
        output += 2 * piece;
        frames -= piece;
    }
    watchDepth(callSeconds_);
    watchStep(callSeconds_);
    control(callSeconds_);
}

/// With a fixed delay, sound with another line of sending times is taken only after what waits has
/// been played, at its time.
bool Playout::oldSoundRemains() const {
    const QueuedBlock* const next = source_.nextArrival();
    return schedule_.kept() && !source_.empty() && next != nullptr &&
           (next->join == Join::NewStream || (!source_.pausing() && schedule_.jumps(*next)));
}

void Playout::takeArrivals() {
    std::size_t left = schedule_.kept() ? MAXIMUM_ARRIVALS : queue_->size();
    for (held_ = oldSoundRemains(); left > 0 && !held_; held_ = oldSoundRemains()) {
        --left;
        const QueuedBlock* const block = source_.takeArrival();
        if (block == nullptr) {
            return;
        }
        if (block->join == Join::NewStream) {
            target_.restart();
            schedule_.restart();
            lower();
            lateSeconds_ = 0;
            delayChecked_ = false;
        }
        if (schedule_.kept() && schedule_.jumps(*block)) {
            target_.restart();
            source_.pause();
            inStepFor_ = 0;
        }
        schedule_.noteBlock(*block);
        if (!block->concealed) {
            target_.noteArrival(
                static_cast<std::int64_t>(toMs(block->position, block->sampleRate) * MS),
                block->arrival, toMs(block->count, block->sampleRate));
        }
    }
}

void Playout::watchStart(std::size_t wanted) {
    const double goal = target_.milliseconds() + toMs(wanted, deviceRate_);
    const double depth = toMs(source_.depthFrames(), source_.sampleRate());
    if (!source_.pausing() || source_.empty() || depth < goal) {
        return;
    }
    resampler_.prepare(source_.sampleRate());
    const auto excess = static_cast<std::size_t>((depth - goal) / blockMs());
    source_.skip(excess);
    // Sound from before the device was ready does not count.
    increment(figures_.skipped, everPlayed_ ? excess : 0);
    everPlayed_ = true;
    source_.resume();
    meanDepth_ = target_.milliseconds();
    figures_.playing = true;
}

void Playout::startWhenDue(std::size_t wanted) {
    if (!source_.pausing() || source_.empty() || !schedule_.ready()) {
        return;
    }
    if (!delayChecked_) {
        raiseToMinimum(blockMs());  // The server's own jitter.
    }
    resampler_.prepare(source_.sampleRate());
    const double due = schedule_.dueAt(static_cast<double>(rendered_)) + resampler_.held();
    const auto leftOut = source_.leaveOutUntil(due);
    if (!leftOut) {
        noteLateSound();
        return;
    }
    lateSeconds_ = 0;
    const double early = static_cast<double>(source_.position()) - due;
    if (early > 0) {
        const double silence = early * deviceRate_ / source_.sampleRate();
        if (silence + static_cast<double>(resampler_.waiting()) >= static_cast<double>(wanted)) {
            return;
        }
        resampler_.feedSilence(static_cast<std::size_t>(silence));
    }
    everPlayed_ = delayChecked_ = true;
    source_.resume(*leftOut);
    meanDepth_ = depthMs();
    figures_.playing = true;
}

/// All sound arrives too late: the delay is too short, or the line of the earliest arrivals is not
/// yet right. Raises the delay rather than stay silent.
void Playout::noteLateSound() {
    lateSeconds_ += std::min(sinceLate_, MAXIMUM_PAUSE_SECONDS);
    sinceLate_ = 0;
    if (lateSeconds_ >= LATE_SECONDS) {
        raiseToMinimum(target_.jitterMs());
    }
    if (lateSeconds_ >= MAXIMUM_LATE_SECONDS) {
        schedule_.raiseToNewest(static_cast<double>(rendered_), periodMs_);
        figures_.neededMs = schedule_.goalMs();
        lateSeconds_ = possibleFor_ = 0;
    }
}

void Playout::raiseToMinimum(double jitterMs) {
    if (schedule_.raiseToMinimum(jitterMs, periodMs_)) {
        figures_.neededMs = schedule_.goalMs();
        possibleFor_ = 0;
    }
}

/// The chosen delay applies again.
void Playout::lower() {
    schedule_.lower();
    figures_.neededMs = 0;
    inStepFor_ = possibleFor_ = 0;
}

/// The reason why the delay had to be raised may have passed.
void Playout::watchRaised(double seconds) {
    const double raised = schedule_.goalMs() - chosenMs_;
    const double margin = LOWERING_MARGIN_MS + REPEATED_SHARE * target_.repeatedMs();
    possibleFor_ =
        raised > 0 && !held_ && figures_.spareMs > raised + margin ? possibleFor_ + seconds : 0;
    if (possibleFor_ > LOWERING_SECONDS) {
        lower();
        source_.pause();
    }
}

void Playout::produce(std::size_t wanted) {
    while (resampler_.waiting() < wanted && !source_.pausing()) {
        playBlock();
    }
    if (resampler_.waiting() < wanted) {
        resampler_.feedSilence(wanted - resampler_.waiting());
    }
}

void Playout::playBlock() {
    BlockSource::Block block = source_.next();
    switch (block.kind) {
        case BlockSource::Kind::Concealed:
            increment(figures_.concealed);
            break;
        case BlockSource::Kind::Underrun:
            figures_.playing = false;
            if (held_) {
                break;
            }
            increment(figures_.underruns);
            target_.noteUnderrun();
            if (schedule_.kept() && target_.repeatedMs() > OFTEN_MS) {
                raiseToMinimum(target_.jitterMs() + REPEATED_SHARE * target_.repeatedMs());
            }
            break;
        case BlockSource::Kind::Ended:
            figures_.playing = false;
            break;
        case BlockSource::Kind::Sound:
            stretch(block);
            break;
    }
    playedEnd_ = block.end;
    resampler_.feed(block.frames, block.count);
}

bool Playout::stretchIsDue() {
    const double target = target_.milliseconds();
    const double shortage = target - meanDepth_;
    const double maximum = std::min(MAXIMUM_SHORTAGE_MS, SHORTAGE_SHARE * target);
    stretching_ = shortage > (stretching_ ? std::min(SMALL_SHORTAGE_MS, maximum) : maximum);
    return ++sinceStretch_ >= STRETCH_INTERVAL && stretching_;
}

void Playout::stretch(BlockSource::Block& block) {
    if (schedule_.kept() || !stretchIsDue()) {
        return;
    }
    const std::size_t longer = vxlisten::stretch(block.frames, block.count, stretched_.data());
    if (longer > block.count) {
        increment(figures_.stretched);
        meanDepth_ += toMs(longer - block.count, resampler_.streamRate());
        sinceStretch_ = 0;
        block.frames = stretched_.data();
        block.count = longer;
    }
}

double Playout::depthMs() const {
    return toMs(source_.depthFrames(), source_.sampleRate()) +
           toMs(resampler_.waiting(), deviceRate_);
}

double Playout::blockMs() const {
    return toMs(source_.blockFrames(), source_.sampleRate());
}

void Playout::watchDepth(double seconds) {
    figures_.jitterMs = target_.jitterMs();
    const bool kept = schedule_.kept();
    figures_.targetMs = !kept               ? target_.milliseconds()
                        : source_.pausing() ? 0.0
                                            : meanDepth_ - lateMs();
    if (source_.pausing()) {
        figures_.depthMs = depthMs();
        return;
    }
    meanDepth_ += (depthMs() - meanDepth_) * std::min(1.0, seconds / DEPTH_MEMORY);
    figures_.depthMs = meanDepth_;
    if (kept) {
        return;
    }
    const double target = target_.milliseconds();
    target_.noteDepth(depthMs(), meanDepth_);
    if (meanDepth_ > target + std::max(MINIMUM_EXCESS_MS, EXCESS_SHARE * target)) {
        skipDown();
    }
}

double Playout::lateMs() const {
    return schedule_.delayMs(static_cast<double>(playedEnd_) - resampler_.held(),
                             static_cast<double>(rendered_)) -
           schedule_.goalMs();
}

void Playout::watchStep(double seconds) {
    if (source_.pausing() || !schedule_.ready()) {
        figures_.delayMs = figures_.inStepMs = PlayoutFigures::NOT_KNOWN;
        // The alignment is void once the device's times are known again.
        inStepFor_ = schedule_.ready() ? inStepFor_ : 0.0;
        return;
    }
    const double late = lateMs();
    figures_.delayMs = late + schedule_.goalMs();
    figures_.inStepMs = late + schedule_.goalMs() - chosenMs_;
    figures_.nominalLatency = schedule_.nominalOnly();
    figures_.spareMs = schedule_.goalMs() - schedule_.minimumMs(target_.jitterMs(), periodMs_);
    watchRaised(seconds);
    inStepFor_ += seconds;
    const double maximum =
        inStepFor_ < SETTLING_SECONDS ? MAXIMUM_SETTLING_LATE_MS : MAXIMUM_LATE_MS;
    if (schedule_.kept() && inStepFor_ > MINIMUM_PLACED && std::abs(late) > maximum) {
        source_.pause();
        inStepFor_ = 0;
    }
}

void Playout::skipDown() {
    const double excess = std::min(depthMs(), meanDepth_) - target_.milliseconds();
    const double packets = excess / blockMs();
    if (packets >= 1.0) {
        source_.skip(static_cast<std::size_t>(packets));
        increment(figures_.skipped, static_cast<std::uint64_t>(packets));
        meanDepth_ = depthMs();
    }
}

void Playout::control(double seconds) {
    sinceControl_ += seconds;
    const bool settling = schedule_.kept() && inStepFor_ < SETTLING_SECONDS;
    if (sinceControl_ < (settling ? SETTLING_INTERVAL : CONTROL_INTERVAL)) {
        return;
    }
    if (!source_.pausing()) {
        figures_.correctionPpm = schedule_.kept() ? stepPpm() : bufferPpm();
        resampler_.steer(figures_.correctionPpm);
    }
    sinceControl_ = 0;
}

/// While the device's times are not known, as after an underrun, only the clocks' difference
/// counts.
double Playout::stepPpm() const {
    const double ppm = schedule_.ready() ? stepCorrection(lateMs(), schedule_.ratePpm(), inStepFor_)
                                         : schedule_.ratePpm();
    return std::clamp(ppm, -SteeredResampler::MAXIMUM_PPM, SteeredResampler::MAXIMUM_PPM);
}

double Playout::bufferPpm() {
    const double ppm = drift_.update(meanDepth_ - target_.milliseconds(), sinceControl_);
    return std::clamp(ppm + target_.shrinkingPpm(), -DriftControl::MAXIMUM_PPM,
                      DriftControl::MAXIMUM_PPM);
}

}  // namespace vxlisten
