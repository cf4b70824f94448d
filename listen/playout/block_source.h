#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "listen/audio/stream_decoder.h"
#include "listen/playout/jitter_buffer.h"
#include "listen/playout/packet_queue.h"

namespace vxlisten {

/// Turns the packets of a jitter buffer into an unbroken row of blocks of sound: decodes, stands
/// in for lost packets, and fades where the sound stops, starts or leaps. Opus packets are replaced
/// by libopus's own concealment, raw ones by the mirrored block before, faded out.
/// Not thread-safe. Realtime-safe: yes, once built.
class BlockSource {
  public:
    enum class Kind {
        Sound,      ///< A packet that came in time.
        Concealed,  ///< Stands in for a lost packet.
        RanDry,     ///< The last block before a pause, because nothing is left.
        Ended,      ///< The last block before a pause, because a new stream begins.
        Nothing,    ///< Pausing; resume() ends it.
    };

    struct Block {
        Kind kind = Kind::Nothing;
        const std::int16_t* frames = nullptr;  ///< Stereo; valid until the next call.
        std::size_t count = 0;                 ///< Frames.
    };

    /// Hands a packet to the buffer. A packet of a new stream pauses the sound.
    JitterBuffer::Inserted insert(const StoredPacket& packet);

    /// The next block of sound.
    Block next();

    /// True while nothing is played, until resume().
    [[nodiscard]] bool pausing() const { return pausing_; }

    /// Ends the pause; the next block fades in.
    void resume();

    /// Leaves out `packets` turns; the sound before fades over into the sound after them.
    void skip(std::size_t packets);

    [[nodiscard]] const JitterBuffer& buffer() const { return buffer_; }

  private:
    static constexpr std::size_t ROOM = StreamDecoder::MAX_FRAMES * 2;
    using Samples = std::array<std::int16_t, ROOM>;

    Block play(const StoredPacket& packet);
    Block standIn(bool last);
    std::size_t conceal(bool last);
    std::size_t concealRaw();
    void smoothStart(std::size_t count);

    JitterBuffer buffer_;
    StreamDecoder decoder_;
    bool pausing_ = true;
    bool fadeIn_ = true;
    bool streamChanged_ = false;  ///< The buffer holds a new stream, the sound is still the old.
    bool opus_ = false;           ///< The latest packet was Opus.
    unsigned missingRun_ = 0;     ///< Packets concealed in a row.
    std::size_t tailCount_ = 0;   ///< Frames in tail_ that the next block fades over from.
    std::size_t lastCount_ = 0;   ///< Frames in block_ of the latest sound.
    Samples block_{};
    Samples tail_{};
};

}  // namespace vxlisten
