#include "listen/playout/steered_resampler.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include <speex/speex_resampler.h>

namespace vxlisten {

namespace {

constexpr unsigned CHANNELS = 2;
constexpr int QUALITY = 5;
/// The resampler's ratio is a fraction whose terms must stay below 2^16, or it overflows.
constexpr int MAXIMUM_TERM = 60000;
constexpr double PPM = 1e-6;

/// The factor that makes two rates the terms of a precise ratio.
double termScale(int largerRate) {
    const double share = static_cast<double>(MAXIMUM_TERM) / largerRate;
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

/// A resampler that allocates nothing when its ratio changes.
Resampler makeResampler(int from, int to) {
    int error = RESAMPLER_ERR_SUCCESS;
    Resampler resampler(speex_resampler_init(CHANNELS, static_cast<unsigned>(from),
                                             static_cast<unsigned>(to), QUALITY, &error));
    if (resampler != nullptr) {
        // The first ratio allocates all that is ever needed.
        setRatio(resampler.get(), from, to, SteeredResampler::MAXIMUM_PPM, 0);
        setRatio(resampler.get(), from, to, 0, 0);
    }
    return resampler;
}

}  // namespace

SteeredResampler::SteeredResampler(int deviceRate) : deviceRate_(deviceRate), fifo_(FIFO_SAMPLES) {
    std::transform(SAMPLE_RATES.begin(), SAMPLE_RATES.end(), resamplers_.begin(),
                   [deviceRate](int rate) { return makeResampler(rate, deviceRate); });
}

void SteeredResampler::prepare(int streamRate) {
    if (streamRate == streamRate_) {
        return;
    }
    streamRate_ = streamRate;
    const auto* const at = std::find(SAMPLE_RATES.begin(), SAMPLE_RATES.end(), streamRate);
    assert(at != SAMPLE_RATES.end());
    resampler_ = resamplers_[static_cast<std::size_t>(at - SAMPLE_RATES.begin())].get();
    if (resampler_ != nullptr) {
        speex_resampler_reset_mem(resampler_);
    }
    carry_ = 0;
}

void SteeredResampler::steer(double ppm) {
    if (resampler_ != nullptr) {
        // Rounding errors are compensated later.
        carry_ = setRatio(resampler_, streamRate_, deviceRate_,
                          std::clamp(ppm, -MAXIMUM_PPM, MAXIMUM_PPM), carry_);
    }
}

void SteeredResampler::makeRoom() {
    if (start_ > FIFO_SAMPLES / 2) {
        std::copy(fifo_.begin() + static_cast<std::ptrdiff_t>(start_),
                  fifo_.begin() + static_cast<std::ptrdiff_t>(end_), fifo_.begin());
        end_ -= start_;
        start_ = 0;
    }
}

void SteeredResampler::feed(const std::int16_t* frames, std::size_t count) {
    makeRoom();
    while (count > 0 && resampler_ != nullptr) {
        auto taken = static_cast<spx_uint32_t>(count);
        auto made = static_cast<spx_uint32_t>((FIFO_SAMPLES - end_) / CHANNELS);
        speex_resampler_process_interleaved_int(resampler_, frames, &taken, fifo_.data() + end_,
                                                &made);
        end_ += std::size_t{made} * CHANNELS;
        frames += std::size_t{taken} * CHANNELS;
        count -= taken;
        if (taken == 0) {
            return;
        }
    }
}

void SteeredResampler::feedSilence(std::size_t count) {
    makeRoom();
    assert(end_ + count * CHANNELS <= FIFO_SAMPLES);
    std::fill_n(fifo_.begin() + static_cast<std::ptrdiff_t>(end_), count * CHANNELS,
                std::int16_t{0});
    end_ += count * CHANNELS;
}

void SteeredResampler::take(std::int16_t* output, std::size_t count) {
    assert(count <= waiting());
    std::copy_n(fifo_.begin() + static_cast<std::ptrdiff_t>(start_), count * CHANNELS, output);
    start_ += count * CHANNELS;
}

double SteeredResampler::held() const {
    const double inside =
        resampler_ != nullptr ? speex_resampler_get_input_latency(resampler_) : 0.0;
    return inside + static_cast<double>(waiting()) * streamRate_ / deviceRate_;
}

}  // namespace vxlisten
