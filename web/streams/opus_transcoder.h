#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <opus/opus.h>

#include "listen/audio/rate_adapter.h"
#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"

namespace vxweb {

/// Frees an Opus encoder.
struct OpusEncoderDeleter {
    void operator()(OpusEncoder* encoder) const { opus_encoder_destroy(encoder); }
};

/// Makes Opus packets of 10 ms at 48 kHz from packets that players cannot decode. Not thread-safe.
class OpusTranscoder {
  public:
    using Put = std::function<void(const unsigned char* packet, std::size_t length)>;

    /// `rate` in kbit/s. Creates the encoder when needed.
    explicit OpusTranscoder(int rate) : rate_(rate) {}

    /// Decodes a packet with its `step` and calls `put` for each complete new packet. False when it
    /// could not be decoded.
    [[nodiscard]] bool take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                            const Put& put);

    /// Drops the sound of an incomplete packet; the next sound begins a new stream.
    void restart();

  private:
    [[nodiscard]] bool prepare();

    int rate_;
    vxlisten::StreamDecoder decoder_;
    vxlisten::RateAdapter adapter_{48000};
    std::unique_ptr<OpusEncoder, OpusEncoderDeleter> encoder_;
    std::vector<std::int16_t> waiting_;
    bool fresh_ = true;
};

}  // namespace vxweb
