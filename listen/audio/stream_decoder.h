#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <opus/opus.h>

#include "listen/network/audio_packet.h"
#include "stream/wire_format.h"

namespace vxlisten {

/// Frees an Opus decoder.
struct OpusDecoderDeleter {
    void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
};

/// Turns packets into interleaved signed 16-bit stereo frames. One for each place that plays or
/// writes the stream, since Opus keeps a state from packet to packet. Not thread-safe.
class StreamDecoder {
  public:
    /// Most frames that one packet decodes to.
    static constexpr std::size_t MAX_FRAMES = wire::OPUS_FRAME_SAMPLES;

    /// Without memory for libopus every Opus packet counts as damaged.
    StreamDecoder();

    /// Decodes `packet` into `frames` (room for MAX_FRAMES stereo frames). Returns the number of
    /// frames written, 0 for a damaged packet. Realtime-safe: yes.
    std::size_t decode(const AudioPacket& packet, std::int16_t* frames);

    /// Writes 480 frames that stand for a lost Opus packet. Returns 480, or 0 when there is nothing
    /// to go on from. Realtime-safe: yes.
    std::size_t conceal(std::int16_t* frames);

    /// Forgets the past, for a stream that has nothing to do with the one before.
    void reset();

  private:
    std::unique_ptr<OpusDecoder, OpusDecoderDeleter> opus_;
    std::uint32_t rateCode_ = 0;
    bool primed_ = false;  ///< The decoder has seen a packet of the present stream.
};

}  // namespace vxlisten
