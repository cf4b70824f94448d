#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vxlisten {

/// The state of a sink.
enum class SinkState {
    Open,    ///< It accepts more.
    Closed,  ///< Its reader is gone; the program ends quietly.
    Failed,  ///< It cannot continue; see error().
};

/// A file or pipe that takes the stream's frames in order. Thread: the one that owns it.
class PcmSink {
  public:
    PcmSink() = default;
    virtual ~PcmSink() = default;
    PcmSink(const PcmSink&) = delete;
    PcmSink& operator=(const PcmSink&) = delete;

    /// Takes `count` interleaved stereo frames of `rate` Hz. May block.
    virtual SinkState write(const std::int16_t* frames, std::size_t count, int rate) = 0;

    /// A message about the failure, without a line end; empty for none.
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
