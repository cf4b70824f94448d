#pragma once

#include <cstdint>

#include "listen/network/audio_packet.h"

namespace vxlisten {

/// How a packet follows those before it.
struct SequenceStep {
    bool start = true;          ///< It does not continue the packets before it.
    std::uint32_t missing = 0;  ///< Packets that are missing before it.
};

/// Follows the sequence numbers of one connection, whose packets ENet delivers in order and once.
/// The raw and the compressed pass have separate numbers, so a change of pass is a new start, as
/// are a change of sample rate and an impossible gap. Numbers wrap at 2^32. Not thread-safe.
class SequenceTracker {
  public:
    /// Takes the next packet. Realtime-safe: yes.
    SequenceStep observe(const AudioPacket& packet);

    /// Forgets the stream, as after a new connection; keeps the count.
    void restart() { started_ = false; }

    /// Packets that never came.
    [[nodiscard]] std::uint64_t lost() const { return lost_; }

  private:
    bool started_ = false;
    bool compressedPass_ = false;
    int sampleRate_ = 0;
    std::uint32_t expected_ = 0;
    std::uint64_t lost_ = 0;
};

}  // namespace vxlisten
