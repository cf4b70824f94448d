#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "listen/audio/rate_adapter.h"
#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "web/streams/media_stream.h"
#include "web/streams/stream_clock.h"

namespace vxweb {

/// Base of the streams of decoded sound: keeps the rate of the first packet and the pace of time,
/// and joins sound without steps. Not thread-safe.
class PcmStream : public MediaStream {
  public:
    void take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
              std::int64_t nowUs, const Emit& emit) final;
    void pass(std::int64_t nowUs, const Emit& emit) final;

  protected:
    static constexpr std::size_t CHANNELS = 2;

    /// Called once, before the first write(): `rate` in Hz.
    virtual void start(int rate) = 0;

    /// Takes `count` interleaved stereo frames and appends the complete frames of its format to
    /// `bytes`.
    virtual void write(const std::int16_t* frames, std::size_t count, std::string& bytes) = 0;

  private:
    void startOnce();
    void writeSilence(std::size_t count);
    void writeSound(const std::int16_t* frames, std::size_t count, int rate);
    void writeJoined(std::int16_t* frames, std::size_t count, bool join);
    void deliver(const Emit& emit);

    vxlisten::StreamDecoder decoder_;
    StreamClock clock_{0, 1};
    std::unique_ptr<vxlisten::RateAdapter> adapter_;  ///< Null before the start.
    std::vector<std::int16_t> frames_;                ///< Being written.
    std::array<std::int16_t, CHANNELS> last_{};       ///< The last frame written.
    bool join_ = false;  ///< The next sound does not continue the last frame.
    std::string bytes_;
};

}  // namespace vxweb
