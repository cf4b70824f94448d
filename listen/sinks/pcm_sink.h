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

    /// One sentence about the failure, without a line end; empty for none.
    [[nodiscard]] const std::string& error() const { return error_; }

  protected:
    SinkState fail(const std::string& sentence) {
        error_ = sentence;
        return SinkState::Failed;
    }

  private:
    std::string error_;
};

}  // namespace vxlisten
