#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vxlisten {

/// How a sink took what it was given.
enum class SinkState {
    Open,    ///< It takes more.
    Closed,  ///< Its reader has gone; the program ends quietly.
    Failed,  ///< It cannot go on; error() says why.
};

/// A place where the stream's frames go in true time order: a file or a pipe.
/// Thread: the one that owns it.
class PcmSink {
  public:
    PcmSink() = default;
    virtual ~PcmSink() = default;
    PcmSink(const PcmSink&) = delete;
    PcmSink& operator=(const PcmSink&) = delete;

    /// Takes `count` interleaved stereo frames of `rate` Hz. May block.
    virtual SinkState write(const std::int16_t* frames, std::size_t count, int rate) = 0;

    /// Completes what was written; nothing is written afterwards. May block.
    virtual SinkState finish() = 0;

    /// One sentence about the failure, without a line end.
    [[nodiscard]] virtual std::string error() const = 0;
};

}  // namespace vxlisten
