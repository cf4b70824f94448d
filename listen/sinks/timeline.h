#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "listen/audio/level_meter.h"
#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "listen/sinks/pcm_sink.h"

namespace vxlisten {

/// Passes the sound to the sinks, with silence for what is missing, so that times in the recording
/// are true. Not thread-safe.
class Timeline {
  public:
    /// Adds a sink; borrowed, must outlive this.
    void addSink(PcmSink* sink) { sinks_.push_back(sink); }

    /// Takes the sound of a packet with its `step`, none when the packet is damaged; `now` is its
    /// time of arrival in microseconds. Returns the first sink that is not open, null when all are.
    PcmSink* take(const AudioPacket& packet, const SequenceStep& step, const DecodedBlock& sound,
                  std::int64_t now);

    /// Writes the silence that is due at `now` (microseconds) while there is no connection, at most
    /// a second of it. Called regularly, it keeps pace with time. Returns as take() does.
    PcmSink* pass(std::int64_t now);

    /// Levels of all sound received.
    [[nodiscard]] const LevelMeter& level() const { return level_; }
    /// Levels since they were last cleared.
    [[nodiscard]] LevelMeter& recentLevel() { return recentLevel_; }
    /// Frames of sound and of silence in place of missing sound.
    [[nodiscard]] std::uint64_t framesDecoded() const { return framesDecoded_; }
    [[nodiscard]] std::uint64_t framesFilled() const { return framesFilled_; }
    /// Packets that could not be decoded.
    [[nodiscard]] std::uint64_t damaged() const { return damaged_; }

  private:
    [[nodiscard]] std::uint64_t missingFrames(const AudioPacket& packet, const SequenceStep& step,
                                              std::int64_t now) const;
    [[nodiscard]] std::int64_t reach() const;
    [[nodiscard]] std::uint64_t maximumFill(const AudioPacket& packet, std::int64_t now) const;
    void begin(const AudioPacket& packet, std::int64_t now);
    PcmSink* fill(std::uint64_t frames, int rate);
    PcmSink* hand(const std::int16_t* frames, std::size_t count, int rate);

    std::vector<PcmSink*> sinks_;
    LevelMeter level_;
    LevelMeter recentLevel_;
    std::uint64_t framesDecoded_ = 0;
    std::uint64_t framesFilled_ = 0;
    std::uint64_t damaged_ = 0;
    bool started_ = false;
    std::int64_t lastArrival_ = 0;  ///< Or the time up to which pass() has written.
    int rate_ = 0;                  ///< Hz, of the latest packet.
    std::int64_t start_ = 0;        ///< When the sound began, microseconds.
    std::int64_t rateStart_ = 0;    ///< The same for the sound with the present rate,
    std::uint64_t rateFrames_ = 0;  ///< and the frames since then.
};

}  // namespace vxlisten
