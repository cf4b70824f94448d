#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "listen/audio/rate_adapter.h"
#include "listen/sinks/pcm_sink.h"

namespace vxlisten {

/// Writes raw little-endian 16-bit stereo to a descriptor, at the rate of the first frames; later
/// changes of rate are converted. Waits for a slow reader until a stop is requested.
class PipeSink : public PcmSink {
  public:
    /// `descriptor` is borrowed.
    explicit PipeSink(int descriptor) : descriptor_(descriptor) {}

    SinkState write(const std::int16_t* frames, std::size_t count, int rate) override;
    /// True once the pipe has no reader. Does not block.
    [[nodiscard]] bool readerGone() const;

  private:
    [[nodiscard]] bool waitForRoom() const;
    SinkState writeBytes(const char* bytes, std::size_t count);
    SinkState stop(int errorNumber);

    int descriptor_;
    SinkState state_ = SinkState::Open;
    std::optional<RateAdapter> adapter_;
};

}  // namespace vxlisten
