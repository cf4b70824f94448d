#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "web/streams/pcm_stream.h"

namespace vxweb {

/// Signed 16-bit samples after a WAV header for an unknown length.
class WavStream final : public PcmStream {
  public:
    [[nodiscard]] std::string header() const override { return header_; }

  private:
    void start(int rate) override;
    void write(const std::int16_t* frames, std::size_t count, std::string& bytes) override;

    std::string header_;
};

}  // namespace vxweb
