#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "listen/audio/splicing.h"
#include "listen/audio/stream_decoder.h"
#include "listen/playout/block_queue.h"
#include "listen/playout/block_source.h"
#include "listen/playout/delay_target.h"
#include "listen/playout/drift_control.h"
#include "listen/playout/output_clock.h"
#include "listen/playout/schedule.h"
#include "listen/playout/steered_resampler.h"

namespace vxlisten {

/// The figures of the playing side. Written by the thread that renders, read by any.
struct PlayoutFigures {
    static constexpr double NOT_KNOWN = std::numeric_limits<double>::quiet_NaN();

    std::atomic<std::uint64_t> concealed{0};  ///< Packets that were replaced.
    std::atomic<std::uint64_t> underruns{0};  ///< Underruns.
    std::atomic<std::uint64_t> skipped{0};    ///< Packets dropped to catch up.
    std::atomic<std::uint64_t> stretched{0};  ///< Packets played longer, to buffer more.
    std::atomic<double> depthMs{0};           ///< Mean of the sound waiting to be rendered.
    std::atomic<double> targetMs{0};          ///< What the depth should be.
    std::atomic<double> jitterMs{0};          ///< How late nearly all packets are at most.
    std::atomic<double> correctionPpm{0};     ///< How much faster than nominal it plays.
    std::atomic<double> delayMs{NOT_KNOWN};   ///< From the sending to the loudspeaker.
    std::atomic<double> inStepMs{NOT_KNOWN};  ///< How much later than chosen that is.
    std::atomic<double> neededMs{0};  ///< The minimum delay possible, when that is more than
                                      ///< the chosen one; else 0.
    std::atomic<double> spareMs{0};   ///< By how much the chosen delay exceeds that minimum.
    std::atomic<bool> nominalLatency{false};  ///< The device's time stamps cannot be true.
    std::atomic<bool> playing{false};         ///< False while it fills up.
};

/// Plays a stream at the pace of an output device and resamples it to the device's rate. It keeps
/// the right amount of sound buffered or, when the user chose a delay, keeps that delay from the
/// sending to the loudspeaker. One thread pushes into the queue, one renders. Times are given, not
/// taken from a clock.
class Playout {
  public:
    /// `deviceRate` in Hz; `latencyMs` is the device's nominal latency. Plays what `queue` holds,
    /// which nobody else reads any more; null for a new queue.
    Playout(int deviceRate, const PlayoutSettings& settings, double latencyMs = 0,
            std::shared_ptr<BlockQueue> queue = nullptr);

    /// The queue of the sound to play.
    [[nodiscard]] BlockQueue& queue() { return *queue_; }

    /// A queue for these settings.
    [[nodiscard]] static std::shared_ptr<BlockQueue> makeQueue(const PlayoutSettings& settings);

    /// Writes `frames` stereo frames for the device. `now` (microseconds) is the time of the call,
    /// `latency` (microseconds) how much later the first of them is heard, reported by the device.
    /// Thread: the one that renders. Realtime-safe: yes.
    void render(std::int16_t* output, std::size_t frames, std::int64_t now,
                double latency = OutputClock::UNKNOWN);

    /// Notes an underrun of the device itself. Thread: the one that renders. Realtime-safe: yes.
    void noteDeviceUnderrun() { schedule_.noteDeviceUnderrun(); }

    /// Thread: any.
    [[nodiscard]] const PlayoutFigures& figures() const { return figures_; }

  private:
    [[nodiscard]] bool oldSoundRemains() const;
    void takeArrivals();
    void watchStart(std::size_t wanted);
    void startWhenDue(std::size_t wanted);
    void noteLateSound();
    void raiseToMinimum(double jitterMs);
    void lower();
    void watchRaised(double seconds);
    void watchDepth(double seconds);
    void watchStep(double seconds);
    void skipDown();
    void stretch(BlockSource::Block& block);
    [[nodiscard]] bool stretchIsDue();
    void control(double seconds);
    [[nodiscard]] double stepPpm() const;
    double bufferPpm();
    void produce(std::size_t wanted);
    void playBlock();
    [[nodiscard]] double depthMs() const;
    [[nodiscard]] double blockMs() const;
    /// How late the sound is that is rendered next.
    [[nodiscard]] double lateMs() const;

    int deviceRate_;
    std::shared_ptr<BlockQueue> queue_;
    BlockSource source_{*queue_};
    DelayTarget target_;
    DriftControl drift_;
    Schedule schedule_;
    SteeredResampler resampler_;
    bool stretching_ = false;
    unsigned sinceStretch_ = 0;  ///< Packets.
    std::array<std::int16_t, 2 * (StreamDecoder::MAX_FRAMES + STRETCH_MAXIMUM_ADDED)> stretched_{};
    bool everPlayed_ = false;
    bool delayChecked_ = false;    ///< Whether the chosen delay is possible for this stream.
    std::uint64_t rendered_ = 0;   ///< Frames that the device has been given.
    std::uint64_t playedEnd_ = 0;  ///< Frames of the stream up to the last block that was played.
    double chosenMs_;              ///< The delay to keep.
    double periodMs_ = 0;          ///< The device's period.
    double callSeconds_ = 0;       ///< Since the call before.
    double inStepFor_ = 0;         ///< Seconds since the sound was last aligned,
    double lateSeconds_ = 0;       ///< and that all sound has been too late for that.
    double sinceLate_ = 0;         ///< Seconds since sound was last found to be too late.
    double possibleFor_ = 0;       ///< Seconds that a raised delay has not been needed.
    bool held_ = false;            ///< Arrivals wait until what is older has been played.
    std::int64_t lastRender_ = -1;
    double meanDepth_ = 0;     ///< Milliseconds, over the last seconds.
    double sinceControl_ = 0;  ///< Seconds since the correction was set.
    PlayoutFigures figures_;
};

}  // namespace vxlisten
