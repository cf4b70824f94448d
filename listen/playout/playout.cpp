#include "listen/playout/playout.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <memory>

#include <speex/speex_resampler.h>

namespace vxlisten {

namespace {

constexpr unsigned CHANNELS = 2;
constexpr int QUALITY = 5;
/// The resampler's ratio is a fraction whose terms must stay below 2^16, or it overflows.
constexpr int LARGEST_TERM = 60000;
constexpr double CONTROL_INTERVAL = 0.25;  ///< Seconds.
constexpr double DEPTH_MEMORY = 2.0;       ///< Seconds over which the depth is averaged.
constexpr double LONGEST_STEP = 1.0;       ///< Seconds; a longer pause of the device is cut to it.
constexpr double LEAST_EXCESS_MS = 40;
constexpr double EXCESS_SHARE = 0.5;
constexpr double PPM = 1e-6;
constexpr double MICROSECONDS = 1e6;
// Much less sound than the target is made up for by stretching, for the drift correction is slow.
constexpr double MOST_SHORTAGE_MS = 15;
constexpr double SHORTAGE_SHARE = 0.3;
constexpr double SMALL_SHORTAGE_MS = 4;
constexpr unsigned STRETCH_INTERVAL = 8;  ///< Packets.

void increment(std::atomic<std::uint64_t>& counter, std::uint64_t by = 1) {
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

/// What to multiply two rates with to make good terms of a ratio.
double termScale(int largerRate) {
    const double share = static_cast<double>(LARGEST_TERM) / largerRate;
    return share >= 1.0 ? std::floor(share) : 1.0 / std::ceil(1.0 / share);
}

/// Sets how fast a resampler plays: `ppm` faster than nominal. Returns the part of the ratio's term
/// that rounding left out, `carry` being what it left out before.
double setRatio(SpeexResamplerState* resampler, int from, int to, double ppm, double carry) {
    const double scale = termScale(std::max(from, to));
    const double out = std::round(to * scale);
    const double exact = out * from / to * (1.0 + ppm * PPM) + carry;
    const double in = std::round(exact);
    speex_resampler_set_rate_frac(resampler, static_cast<unsigned>(in), static_cast<unsigned>(out),
                                  static_cast<unsigned>(from), static_cast<unsigned>(to));
    return exact - in;
}

/// A resampler that needs no more memory when its ratio is corrected.
Resampler makeResampler(int from, int to) {
    int error = RESAMPLER_ERR_SUCCESS;
    Resampler resampler(speex_resampler_init(CHANNELS, static_cast<unsigned>(from),
                                             static_cast<unsigned>(to), QUALITY, &error));
    if (resampler != nullptr) {
        setRatio(resampler.get(), from, to, DriftControl::MOST_PPM, 0);  // Takes all it ever needs.
        setRatio(resampler.get(), from, to, 0, 0);
    }
    return resampler;
}

double toMs(std::size_t frames, int rate) {
    return rate > 0 ? 1000.0 * static_cast<double>(frames) / rate : 0.0;
}

}  // namespace

Playout::Playout(int deviceRate, double delayMs)
    : deviceRate_(deviceRate), target_(delayMs), fifo_(FIFO_SAMPLES) {
    std::transform(SAMPLE_RATES.begin(), SAMPLE_RATES.end(), resamplers_.begin(),
                   [deviceRate](int rate) { return makeResampler(rate, deviceRate); });
    figures_.targetMs = target_.milliseconds();
}

void Playout::render(std::int16_t* output, std::size_t frames, std::int64_t now) {
    const double seconds =
        lastRender_ < 0
            ? 0.0
            : std::clamp(static_cast<double>(now - lastRender_) / MICROSECONDS, 0.0, LONGEST_STEP);
    lastRender_ = now;
    takeArrivals();
    target_.pass(seconds);
    while (frames > 0) {
        const std::size_t piece = std::min(frames, FIFO_SAMPLES / 8);
        watchStart(piece);
        produce(piece);
        std::copy_n(fifo_.begin() + static_cast<std::ptrdiff_t>(fifoStart_), piece * CHANNELS,
                    output);
        fifoStart_ += piece * CHANNELS;
        output += piece * CHANNELS;
        frames -= piece;
    }
    watchDepth(seconds);
    control(seconds);
}

void Playout::takeArrivals() {
    while (const QueuedBlock* const block = source_.takeArrival()) {
        if (block->join == Join::NewStream) {
            target_.restart();
        }
        if (!block->concealed) {
            const double blockMs = toMs(block->count, block->sampleRate);
            target_.noteArrival(static_cast<std::int64_t>(block->turn * blockMs * 1000.0),
                                block->arrival, blockMs);
        }
    }
}

void Playout::watchStart(std::size_t wanted) {
    const double goal = target_.milliseconds() + toMs(wanted, deviceRate_);
    const double depth = toMs(source_.depthFrames(), source_.sampleRate());
    if (!source_.pausing() || source_.empty() || depth < goal) {
        return;
    }
    prepareResampler(source_.sampleRate());
    const auto excess = static_cast<std::size_t>((depth - goal) / blockMs());
    source_.skip(excess);
    // What came before the device was ready has never been missed.
    increment(figures_.skipped, everPlayed_ ? excess : 0);
    everPlayed_ = true;
    source_.resume();
    meanDepth_ = target_.milliseconds();
    figures_.playing = true;
}

void Playout::produce(std::size_t wanted) {
    if (fifoStart_ > FIFO_SAMPLES / 2) {
        std::copy(fifo_.begin() + static_cast<std::ptrdiff_t>(fifoStart_),
                  fifo_.begin() + static_cast<std::ptrdiff_t>(fifoEnd_), fifo_.begin());
        fifoEnd_ -= fifoStart_;
        fifoStart_ = 0;
    }
    while (waiting() < wanted && !source_.pausing()) {
        playBlock();
    }
    if (waiting() < wanted) {
        const std::size_t silence = (wanted - waiting()) * CHANNELS;
        std::fill_n(fifo_.begin() + static_cast<std::ptrdiff_t>(fifoEnd_), silence,
                    std::int16_t{0});
        fifoEnd_ += silence;
    }
}

void Playout::playBlock() {
    BlockSource::Block block = source_.next();
    switch (block.kind) {
        case BlockSource::Kind::Concealed:
            increment(figures_.concealed);
            break;
        case BlockSource::Kind::RanDry:
            increment(figures_.underruns);
            target_.noteUnderrun();
            figures_.playing = false;
            break;
        case BlockSource::Kind::Ended:
            figures_.playing = false;
            break;
        case BlockSource::Kind::Sound:
            stretch(block);
            break;
    }
    resample(block.frames, block.count);
}

bool Playout::stretchIsDue() {
    const double target = target_.milliseconds();
    const double shortage = target - meanDepth_;
    const double most = std::min(MOST_SHORTAGE_MS, SHORTAGE_SHARE * target);
    stretching_ = shortage > (stretching_ ? std::min(SMALL_SHORTAGE_MS, most) : most);
    return ++sinceStretch_ >= STRETCH_INTERVAL && stretching_;
}

void Playout::stretch(BlockSource::Block& block) {
    if (!stretchIsDue()) {
        return;
    }
    const std::size_t longer = vxlisten::stretch(block.frames, block.count, stretched_.data());
    if (longer > block.count) {
        increment(figures_.stretched);
        meanDepth_ += toMs(longer - block.count, streamRate_);
        sinceStretch_ = 0;
        block.frames = stretched_.data();
        block.count = longer;
    }
}

void Playout::resample(const std::int16_t* frames, std::size_t count) {
    while (count > 0 && resampler_ != nullptr) {
        auto taken = static_cast<spx_uint32_t>(count);
        auto made = static_cast<spx_uint32_t>((FIFO_SAMPLES - fifoEnd_) / CHANNELS);
        speex_resampler_process_interleaved_int(resampler_, frames, &taken, fifo_.data() + fifoEnd_,
                                                &made);
        fifoEnd_ += std::size_t{made} * CHANNELS;
        frames += std::size_t{taken} * CHANNELS;
        count -= taken;
        if (taken == 0) {
            return;
        }
    }
}

void Playout::prepareResampler(int rate) {
    if (rate == streamRate_) {
        return;
    }
    streamRate_ = rate;
    const auto* const at = std::find(SAMPLE_RATES.begin(), SAMPLE_RATES.end(), rate);
    assert(at != SAMPLE_RATES.end());
    resampler_ = resamplers_[static_cast<std::size_t>(at - SAMPLE_RATES.begin())].get();
    if (resampler_ != nullptr) {
        speex_resampler_reset_mem(resampler_);
    }
    ratioCarry_ = 0;
}

double Playout::depthMs() const {
    return toMs(source_.depthFrames(), source_.sampleRate()) + toMs(waiting(), deviceRate_);
}

double Playout::blockMs() const {
    return toMs(source_.blockFrames(), source_.sampleRate());
}

void Playout::watchDepth(double seconds) {
    figures_.targetMs = target_.milliseconds();
    figures_.jitterMs = target_.jitterMs();
    if (source_.pausing()) {
        figures_.depthMs = depthMs();
        return;
    }
    meanDepth_ += (depthMs() - meanDepth_) * std::min(1.0, seconds / DEPTH_MEMORY);
    figures_.depthMs = meanDepth_;
    const double target = target_.milliseconds();
    if (meanDepth_ > target + std::max(LEAST_EXCESS_MS, EXCESS_SHARE * target)) {
        skipDown();
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
    if (sinceControl_ < CONTROL_INTERVAL) {
        return;
    }
    if (!source_.pausing()) {
        correct(drift_.update(meanDepth_ - target_.milliseconds(), sinceControl_));
    }
    sinceControl_ = 0;
}

void Playout::correct(double ppm) {
    figures_.correctionPpm = ppm;
    if (resampler_ != nullptr) {
        // What rounding takes now is given back later.
        ratioCarry_ = setRatio(resampler_, streamRate_, deviceRate_, ppm, ratioCarry_);
    }
}

}  // namespace vxlisten
