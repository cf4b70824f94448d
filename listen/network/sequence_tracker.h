#pragma once

#include <cstdint>

#include "listen/network/audio_packet.h"

namespace vxlisten {

/// What a packet's sequence number says about those before it.
enum class Arrival {
    Start,      ///< The first packet, or one that has nothing to do with those before it.
    Next,       ///< The expected number.
    AfterGap,   ///< Some numbers before it are missing.
    Late,       ///< It fills a gap that was counted before.
    Duplicate,  ///< It has come before.
};

struct SequenceStep {
    Arrival arrival = Arrival::Start;
    std::uint32_t missing = 0;  ///< AfterGap: how many numbers are missing.
};

/// Follows the sequence numbers of one connection. The raw and the compressed pass count apart, so
/// a change of pass is a new start, and so are a change of sample rate and a jump that no loss
/// explains. Numbers wrap at 2^32. Not thread-safe.
class SequenceTracker {
  public:
    /// Judges one packet in order of arrival. Realtime-safe: yes.
    SequenceStep observe(const AudioPacket& packet);

    /// Forgets the stream, as after a new connection; the counts stay.
    void restart() { started_ = false; }

    [[nodiscard]] std::uint64_t lost() const { return lost_; }
    [[nodiscard]] std::uint64_t late() const { return late_; }
    [[nodiscard]] std::uint64_t duplicates() const { return duplicates_; }

  private:
    bool sameStream(const AudioPacket& packet) const;
    SequenceStep start(const AudioPacket& packet);
    SequenceStep advance(std::uint32_t missing);
    SequenceStep goBack(std::uint32_t distance);

    bool started_ = false;
    bool compressedPass_ = false;
    int sampleRate_ = 0;
    std::uint32_t expected_ = 0;
    std::uint64_t history_ = 0;  ///< Bit i: the number expected_ - 1 - i has come.
    std::uint64_t lost_ = 0;
    std::uint64_t late_ = 0;
    std::uint64_t duplicates_ = 0;
};

}  // namespace vxlisten
