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

/// How a block of sound follows the one before.
enum class Join {
    GoesOn,
    FadeIn,     ///< With a step, unless it is faded in.
    NewStream,  ///< It has nothing to do with what came before.
};

/// The sound of one packet.
struct DecodedBlock {
    const std::int16_t* frames = nullptr;  ///< Stereo; valid until the decoder is used again.
    std::size_t count = 0;                 ///< Frames; 0 for none.
    int sampleRate = 0;                    ///< Hz.
    Join join = Join::GoesOn;
    bool concealed = false;  ///< It stands in for a packet that was lost or damaged.
};

/// Frees an Opus decoder.
struct OpusDecoderDeleter {
    void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
};

/// Turns the packets of a connection into signed 16-bit sound, once for all who take it. For lost
/// packets stand libopus's own concealment, growing fainter, or the mirrored block before, faded
/// out. Not thread-safe.
class StreamDecoder {
  public:
    /// Most frames of a block.
    static constexpr std::size_t MAX_FRAMES = wire::OPUS_FRAME_SAMPLES;
    /// Packets in a row that are concealed; behind a longer gap a new stream begins.
    static constexpr std::uint32_t MAXIMUM_CONCEALED = 256;

    /// Without memory for libopus every Opus packet counts as damaged.
    StreamDecoder();

    /// Decodes the packet that `step` judged and returns its sound, none for a damaged packet.
    /// Before that it calls `take(block)` for each block of what is to be heard: those in place of
    /// missing packets, then the packet's own or the one in its place.
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
    bool primed_ = false;         ///< libopus has followed the stream up to the latest packet.
    Join join_ = Join::NewStream;
    unsigned lostRun_ = 0;  ///< Blocks concealed in a row.
    int sampleRate_ = 0;
    std::size_t count_ = 0;  ///< Frames in block_.
    std::array<std::int16_t, 2 * MAX_FRAMES> block_{};
};

}  // namespace vxlisten
