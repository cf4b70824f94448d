#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <lame/lame.h>

#include "web/streams/pcm_stream.h"

namespace vxweb {

/// Frees an MP3 encoder.
struct LameDeleter {
    void operator()(lame_global_flags* lame) const { lame_close(lame); }
};

/// MP3 of a constant bit rate by LAME, without a header and without a bit reservoir, so that each
/// frame can be played separately, which libsndfile does not offer.
class Mp3Stream final : public PcmStream {
  public:
    /// `rate` in kbit/s.
    explicit Mp3Stream(int rate) : rate_(rate) {}

    [[nodiscard]] std::string header() const override { return {}; }

  private:
    void start(int rate) override;
    void write(const std::int16_t* frames, std::size_t count, std::string& bytes) override;

    int rate_;
    int sampleRate_ = 0;
    std::unique_ptr<lame_global_flags, LameDeleter> lame_;
    std::vector<unsigned char> encoded_;  ///< Bytes of frames that are not complete yet.
};

}  // namespace vxweb
