#pragma once

#include <cstdint>

#include "listen/network/audio_packet.h"

namespace vxlisten {

/// Where a packet stands in its stream.
struct SequenceStep {
    bool start = true;          ///< It has nothing to do with the packets before it.
    std::uint32_t missing = 0;  ///< Packets of the stream that are missing right before it.
};

/// Follows the sequence numbers of one connection, which ENet delivers in order and each once. The
/// raw and the compressed pass count apart, so a change of pass is a new start, and so are a change
/// of sample rate and a jump that no loss explains. Numbers wrap at 2^32. Not thread-safe.
class SequenceTracker {
  public:
    /// Judges one packet in order of arrival. Realtime-safe: yes.
    SequenceStep observe(const AudioPacket& packet);

    /// Forgets the stream, as after a new connection; the count stays.
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
