#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "listen/playout/packet_queue.h"

namespace vxlisten {

/// Puts packets in the order of their numbers and keeps them until their turn. It knows no time:
/// whoever takes packets out decides when. Not thread-safe. Realtime-safe: yes, once built.
class JitterBuffer {
  public:
    static constexpr std::size_t CAPACITY = 256;

    enum class Inserted {
        Kept,
        NewStream,  ///< Kept; what was held belonged to an older stream and is gone.
        Late,       ///< Its turn has passed; not kept.
        Duplicate,  ///< It is held already; not kept.
    };

    JitterBuffer() : slots_(CAPACITY) {}

    Inserted insert(const StoredPacket& packet);

    /// The packet whose turn it is; null when it has not come.
    [[nodiscard]] const StoredPacket* front() const;

    /// True when nothing is held from the present turn on.
    [[nodiscard]] bool empty() const { return end_ == next_; }

    /// Passes on to the next turn. Must not be empty.
    void advance();

    /// Frames from the present turn to the newest packet, missing ones included.
    [[nodiscard]] std::size_t depthFrames() const;

    /// Frames of one packet of the present stream, 0 before the first.
    [[nodiscard]] std::size_t packetFrames() const { return packetFrames_; }

    /// Sample rate of the present stream in Hz, 0 before the first packet.
    [[nodiscard]] int sampleRate() const { return sampleRate_; }

  private:
    struct Slot {
        bool used = false;
        StoredPacket packet;
    };

    [[nodiscard]] bool startsStream(const StoredPacket& packet) const;
    void restart(const StoredPacket& packet);

    std::vector<Slot> slots_;
    bool started_ = false;
    std::uint32_t stream_ = 0;
    std::uint32_t next_ = 0;  ///< Number whose turn it is.
    std::uint32_t end_ = 0;   ///< One after the newest number held; next_ when none is.
    std::size_t packetFrames_ = 0;
    int sampleRate_ = 0;
};

}  // namespace vxlisten
