#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "listen/clock.h"
#include "listen/playout/block_queue.h"
#include "listen/playout/output_clock.h"

namespace vxlisten {

/// What the user chose for playing.
struct PlayoutSettings {
    double bufferMs = 40;       ///< Sound to keep buffered: at first, and at least if
    bool bufferChosen = false;  ///< the user chose it.
    std::optional<double> delayMs =
        std::nullopt;     ///< From the sending to the loudspeaker, if kept.
    double offsetMs = 0;  ///< Latency of the loudspeaker that its device does not report.
};

/// Computes which frame of a stream is due when, and how late the sound is. Frames of the stream
/// are counted from its beginning, those of the output device from the first that it asked for. Not
/// thread-safe. Realtime-safe: yes.
class Schedule {
  public:
    Schedule(int deviceRate, const PlayoutSettings& settings, double nominalLatencyMs)
        : settings_(settings),
          delayMs_(settings.delayMs.value_or(0)),
          clock_(deviceRate, nominalLatencyMs * MICROSECONDS_PER_MILLISECOND) {}

    /// True when the delay from the sending to the loudspeaker is to be kept.
    [[nodiscard]] bool kept() const { return settings_.delayMs.has_value(); }

    /// True when a block belongs to another line of sending times than the newest one.
    [[nodiscard]] bool jumps(const QueuedBlock& block) const;

    /// Takes the newest block of the stream.
    void noteBlock(const QueuedBlock& block);

    /// Forgets the stream.
    void restart() { known_ = false; }

    /// Takes the chosen delay again, after it had to be raised.
    void lower() { delayMs_ = settings_.delayMs.value_or(0); }

    /// The device asks for frames from `frame` on, see OutputClock.
    void noteOutput(std::uint64_t frame, std::int64_t now, double latency);

    /// The device had an underrun, so its times have changed.
    void noteDeviceUnderrun() {
        if (clock_.settled()) {  // Else an underrun at each call would wait endlessly.
            clock_.restart();
        }
    }

    /// True when dueAt() is known.
    [[nodiscard]] bool ready() const { return known_ && clock_.settled(); }

    /// The frame of the stream that is due to be heard when the device's `frame` is.
    [[nodiscard]] double dueAt(double frame) const;

    /// From the sending to the loudspeaker, for the stream's frame `position` in the device's
    /// `frame`; milliseconds.
    [[nodiscard]] double delayMs(double position, double frame) const;

    /// The delay in use: the chosen one, or the minimum possible above it.
    [[nodiscard]] double goalMs() const { return delayMs_; }

    /// The minimum delay for packets that arrive up to `jitterMs` after the earliest ones and a
    /// device with a period of `periodMs`.
    [[nodiscard]] double minimumMs(double jitterMs, double periodMs) const;

    /// Raises the delay in use to that minimum. True when it was raised.
    bool raiseToMinimum(double jitterMs, double periodMs);

    /// Raises the delay in use so that the newest sound is heard in the device's `frame`.
    void raiseToNewest(double frame, double periodMs);

    /// How much faster than nominal to play so that the delay stays constant, in parts per million.
    [[nodiscard]] double ratePpm() const;

    [[nodiscard]] bool nominalOnly() const { return clock_.nominalOnly(); }

  private:
    [[nodiscard]] double sentAt(double position) const;

    PlayoutSettings settings_;
    double delayMs_;
    OutputClock clock_;
    bool known_ = false;
    double position_ = 0;  ///< Of the newest block,
    SendTime sent_;        ///< and when it was sent.
    int sampleRate_ = 0;
    double latencyMs_ = 0;  ///< From a call to when its first frame is heard; a falling maximum.
};

}  // namespace vxlisten
