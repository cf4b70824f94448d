#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <opus/opus.h>

#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "stream/wire_format.h"

namespace vxlisten {

/// How a block of sound continues the one before.
enum class Join {
    Continues,
    FadeIn,     ///< There is a step unless it is faded in.
    NewStream,  ///< It does not continue the sound before.
};

/// The sound of one packet.
struct DecodedBlock {
    const std::int16_t* frames = nullptr;  ///< Stereo; valid until the decoder is used again.
    std::size_t count = 0;                 ///< Frames; 0 for none.
    int sampleRate = 0;                    ///< Hz.
    Join join = Join::Continues;
    bool concealed = false;  ///< It replaces a lost or damaged packet.
};

/// Frees an Opus decoder.
struct OpusDecoderDeleter {
    void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
};

/// Decodes the packets of a connection to signed 16-bit sound. Lost packets are replaced by
/// libopus's concealment, fading out, or by the mirrored block before, faded out. Not thread-safe.
class StreamDecoder {
  public:
    /// Maximum frames of a block.
    static constexpr std::size_t MAX_FRAMES = wire::OPUS_FRAME_SAMPLES;
    /// Maximum packets in a row that are concealed; after a longer gap a new stream begins.
    static constexpr std::uint32_t MAXIMUM_CONCEALED = 256;

    /// Without memory for libopus every Opus packet counts as damaged.
    StreamDecoder();

    /// Decodes a packet with the SequenceTracker's `step` and returns its sound, none for a damaged
    /// packet. First calls `take(block)` for each block to play: those for missing packets, then
    /// the packet's own or its replacement.
    template <class Take>
    DecodedBlock decode(const AudioPacket& packet, const SequenceStep& step, const Take& take) {
        const bool start = step.start || step.missing > MAXIMUM_CONCEALED;
        if (start) {
            reset();
        }
        for (std::uint32_t i = 0; i < (start ? 0 : step.missing); ++i) {
            take(conceal());
        }
        const DecodedBlock sound = decode(packet);
        take(sound.count == 0 && packet.frames > 0 ? conceal() : sound);
        return sound;
    }

  private:
    void reset();
    void resetOpus();
    DecodedBlock decode(const AudioPacket& packet);
    DecodedBlock conceal();
    std::size_t decodeOpus(const AudioPacket& packet);

    std::unique_ptr<OpusDecoder, OpusDecoderDeleter> opus_;
    std::uint32_t rateCode_ = 0;  ///< Of the latest Opus packet.
    bool primed_ = false;         ///< libopus has decoded the stream up to the latest packet.
    Join join_ = Join::NewStream;
    unsigned lostRun_ = 0;  ///< Blocks concealed in a row.
    int sampleRate_ = 0;
    std::size_t count_ = 0;  ///< Frames in block_.
    std::array<std::int16_t, 2 * MAX_FRAMES> block_{};
};

}  // namespace vxlisten
