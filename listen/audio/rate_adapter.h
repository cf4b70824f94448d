#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <speex/speex_resampler.h>

namespace vxlisten {

/// Frees a resampler.
struct ResamplerDeleter {
    void operator()(SpeexResamplerState* state) const { speex_resampler_destroy(state); }
};
using Resampler = std::unique_ptr<SpeexResamplerState, ResamplerDeleter>;

/// Converts a stream whose sample rate may change to a fixed rate. Frames that already have it are
/// not changed.
class RateAdapter {
  public:
    /// `rate`: of the result, in Hz.
    explicit RateAdapter(int rate) : rate_(rate) {}

    /// Converts `count` interleaved stereo frames of `rate` Hz. The result stays valid until the
    /// next call.
    const std::vector<std::int16_t>& convert(const std::int16_t* frames, std::size_t count,
                                             int rate);

    [[nodiscard]] int rate() const { return rate_; }

  private:
    int rate_;
    int inputRate_ = 0;
    Resampler resampler_;  ///< Null while the rates agree.
    std::vector<std::int16_t> output_;
};

}  // namespace vxlisten
