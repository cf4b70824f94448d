#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "listen/audio/stream_decoder.h"
#include "listen/playout/block_queue.h"

namespace vxlisten {

/// Makes a continuous sequence of blocks from a queue: fades where the sound stops, starts or
/// jumps. Everything on the thread that pops. Realtime-safe: yes.
class BlockSource {
  public:
    enum class Kind {
        Sound,      ///< A packet's own.
        Concealed,  ///< Replaces a lost packet.
        Underrun,   ///< The last block before a pause, because nothing is left.
        Ended,      ///< The last block before a pause for another reason.
    };

    struct Block {
        Kind kind;
        const std::int16_t* frames;  ///< Stereo; valid until the next call.
        std::size_t count;           ///< Frames.
        std::uint64_t end;           ///< Frames of the stream up to its end.
    };

    /// `queue` is borrowed and must outlive this.
    explicit BlockSource(BlockQueue& queue) : queue_(queue) {}

    /// Counts nextArrival(). A new stream drops what waits before it and pauses the sound.
    const QueuedBlock* takeArrival();

    /// The next block to count; null when there is none.
    [[nodiscard]] const QueuedBlock* nextArrival() const {
        return seen_ < queue_.size() ? &queue_[seen_] : nullptr;
    }

    /// The next block of sound; not while pausing.
    Block next();

    /// True while nothing is played, until resume().
    [[nodiscard]] bool pausing() const { return pausing_; }

    /// Ends the pause; the next block fades in, without its first `leftOut` frames, which are fewer
    /// than it has.
    void resume(std::size_t leftOut = 0);

    /// The sound fades out with the next block and pauses.
    void pause() { streamChanged_ = !pausing_; }

    /// While pausing: leaves out the blocks before the one that has the stream's frame `position`,
    /// without a fade. Returns the frames of that block before it: 0 when the first block comes
    /// later, nothing when no block reaches so far.
    std::optional<std::size_t> leaveOutUntil(double position);

    /// The stream's frame that the oldest block begins with; not when empty().
    [[nodiscard]] std::uint64_t position() const { return queue_[0].position; }

    /// Drops up to `blocks` blocks, with a crossfade.
    void skip(std::size_t blocks);

    /// True when no counted block waits. The functions below are about those.
    [[nodiscard]] bool empty() const { return seen_ == 0; }
    [[nodiscard]] std::size_t depthFrames() const { return depthFrames_; }
    /// Frames of the latest block, 0 before the first, and its sample rate in Hz.
    [[nodiscard]] std::size_t blockFrames() const { return blockFrames_; }
    [[nodiscard]] int sampleRate() const { return sampleRate_; }

  private:
    using Samples = std::array<std::int16_t, 2 * StreamDecoder::MAX_FRAMES>;

    Block fadeOut();
    void drop(std::size_t blocks);

    BlockQueue& queue_;
    std::size_t seen_ = 0;         ///< Blocks that wait and are counted,
    std::size_t depthFrames_ = 0;  ///< and their frames.
    std::size_t blockFrames_ = 0;
    int sampleRate_ = 0;
    bool pausing_ = true;
    bool fadeIn_ = true;
    bool streamChanged_ = false;  ///< The sound must end: a new stream waits, or pause().
    std::size_t leftOut_ = 0;     ///< Frames of the next block.
    std::uint64_t end_ = 0;       ///< Frames of the stream up to the end of block_.
    std::size_t tailCount_ = 0;   ///< Frames in tail_ that the next block fades over from.
    std::size_t lastCount_ = 0;   ///< Frames in block_ of the latest sound.
    Samples block_{};
    Samples tail_{};
};

}  // namespace vxlisten
