#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/thread_check.h"
#include "listen/audio/stream_decoder.h"
#include "listen/playout/send_clock.h"

namespace vxlisten {

/// A block of sound that waits to be played.
struct QueuedBlock {
    Join join = Join::Continues;
    bool concealed = false;
    std::uint64_t position = 0;  ///< Frames of its stream before it.
    std::int64_t arrival = 0;    ///< Microseconds.
    int sampleRate = 0;          ///< Hz.
    std::size_t count = 0;       ///< Frames.
    SendTime sent;
    std::array<std::int16_t, 2 * StreamDecoder::MAX_FRAMES> frames{};
};

/// The sound between the network thread and the output thread, without a lock. One thread pushes,
/// another reads and pops.
class BlockQueue {
  public:
    /// Room for the sound of `seconds` before and `seconds` after the reader vanishes, and some
    /// seconds more.
    explicit BlockQueue(double seconds = 0);

    /// Appends a copy of a block that arrived at `now` (microseconds). When the queue is full it is
    /// dropped, and the next block begins a new stream. Thread: the one that pushes.
    void push(const DecodedBlock& block, std::int64_t now, const SendTime& sent = {});

    /// The number of blocks that wait. Thread: the one that pops. Realtime-safe: yes.
    [[nodiscard]] std::size_t size() const;

    /// A block that waits, 0 being the oldest; `at` is less than size(). Valid until it is popped.
    /// Thread: the one that pops. Realtime-safe: yes.
    [[nodiscard]] const QueuedBlock& operator[](std::size_t at) const;

    /// Removes the oldest block; must not be empty. Thread: the one that pops. Realtime-safe: yes.
    void pop();

    /// Another thread pops from now on; the one that did has stopped. Thread: any.
    void changeReader() { popping_.release(); }

  private:
    std::vector<QueuedBlock> slots_;
    std::atomic<std::size_t> pushed_{0};
    std::atomic<std::size_t> popped_{0};
    bool newStream_ =
        true;  ///< The next block begins one. Of the thread that pushes, as position_.
    std::uint64_t position_ = 0;
    ThreadCheck pushing_;
    ThreadCheck popping_;
};

}  // namespace vxlisten
