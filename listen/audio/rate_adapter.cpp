#include "listen/audio/rate_adapter.h"

namespace vxlisten {

namespace {

constexpr unsigned CHANNELS = 2;
constexpr int QUALITY = 8;
constexpr std::size_t SPARE_FRAMES = 16;

}  // namespace

const std::vector<std::int16_t>& RateAdapter::convert(const std::int16_t* frames, std::size_t count,
                                                      int rate) {
    if (rate != inputRate_) {
        inputRate_ = rate;
        resampler_.reset();
        if (rate != rate_) {
            int error = RESAMPLER_ERR_SUCCESS;
            resampler_.reset(speex_resampler_init(CHANNELS, static_cast<unsigned>(rate),
                                                  static_cast<unsigned>(rate_), QUALITY, &error));
        }
    }
    if (resampler_ == nullptr) {
        output_.assign(frames, frames + count * CHANNELS);
        return output_;
    }
    const auto ratio = static_cast<double>(rate_) / rate;
    const auto room = static_cast<std::size_t>(static_cast<double>(count) * ratio) + SPARE_FRAMES;
    output_.resize(room * CHANNELS);
    auto taken = static_cast<spx_uint32_t>(count);
    auto made = static_cast<spx_uint32_t>(room);
    speex_resampler_process_interleaved_int(resampler_.get(), frames, &taken, output_.data(),
                                            &made);
    output_.resize(static_cast<std::size_t>(made) * CHANNELS);
    return output_;
}

}  // namespace vxlisten
