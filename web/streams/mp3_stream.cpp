#include "web/streams/mp3_stream.h"

namespace vxweb {

namespace {

constexpr int ENCODER_QUALITY = 5;  ///< Of LAME's 0 (best) to 9 (fastest).
constexpr std::size_t LAME_SPARE = 7200;
constexpr int BITS_PER_KILOBIT = 1000;
constexpr int FRAME_SAMPLES_PER_BIT = 144;  ///< 1152 samples, 8 bits a byte.
constexpr std::size_t FRAME_HEADER = 4;
constexpr unsigned PADDING = 2;  ///< In the third byte.

}  // namespace

void Mp3Stream::start(int rate) {
    sampleRate_ = rate;
    lame_.reset(lame_init());
    if (lame_ == nullptr) {
        return;
    }
    lame_set_num_channels(lame_.get(), static_cast<int>(CHANNELS));
    lame_set_in_samplerate(lame_.get(), rate);
    lame_set_out_samplerate(lame_.get(), rate);
    lame_set_brate(lame_.get(), rate_);
    lame_set_quality(lame_.get(), ENCODER_QUALITY);
    lame_set_bWriteVbrTag(lame_.get(), 0);
    lame_set_disable_reservoir(lame_.get(), 1);
    if (lame_init_params(lame_.get()) < 0) {
        lame_.reset();
    }
}

void Mp3Stream::write(const std::int16_t* frames, std::size_t count, std::string& bytes) {
    if (lame_ == nullptr) {
        return;
    }
    const std::size_t before = encoded_.size();
    encoded_.resize(before + 2 * count + LAME_SPARE);
    // LAME does not write to the frames.
    const int made = lame_encode_buffer_interleaved(
        lame_.get(), const_cast<std::int16_t*>(frames), static_cast<int>(count),
        encoded_.data() + before, static_cast<int>(encoded_.size() - before));
    encoded_.resize(before + static_cast<std::size_t>(made > 0 ? made : 0));
    std::size_t whole = 0;
    while (encoded_.size() - whole >= FRAME_HEADER) {
        const unsigned padding = (encoded_[whole + 2] & PADDING) != 0 ? 1 : 0;
        const std::size_t length = static_cast<std::size_t>(FRAME_SAMPLES_PER_BIT * rate_ *
                                                            BITS_PER_KILOBIT / sampleRate_) +
                                   padding;
        if (encoded_.size() - whole < length) {
            break;
        }
        whole += length;
    }
    bytes.append(encoded_.begin(), encoded_.begin() + static_cast<std::ptrdiff_t>(whole));
    encoded_.erase(encoded_.begin(), encoded_.begin() + static_cast<std::ptrdiff_t>(whole));
}

}  // namespace vxweb
