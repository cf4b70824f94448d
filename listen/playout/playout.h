#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <speex/speex_resampler.h>

#include "listen/audio/rate_adapter.h"
#include "listen/audio/splicing.h"
#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"
#include "listen/playout/block_queue.h"
#include "listen/playout/block_source.h"
#include "listen/playout/delay_target.h"
#include "listen/playout/drift_control.h"

namespace vxlisten {

/// What the playing side tells. Written by the thread that renders, read by any.
struct PlayoutFigures {
    std::atomic<std::uint64_t> concealed{0};  ///< Packets that something else was played for.
    std::atomic<std::uint64_t> underruns{0};  ///< Times that the sound ran dry.
    std::atomic<std::uint64_t> skipped{0};    ///< Packets left out to catch up.
    std::atomic<std::uint64_t> stretched{0};  ///< Packets played longer, to buffer more.
    std::atomic<double> depthMs{0};           ///< Mean of the sound waiting to be rendered.
    std::atomic<double> targetMs{0};          ///< What the depth should be.
    std::atomic<double> jitterMs{0};          ///< How uneven the packets come.
    std::atomic<double> correctionPpm{0};     ///< How much faster than nominal it plays.
    std::atomic<bool> playing{false};         ///< False while it fills up.
};

/// Plays a stream of packets at the pace of an output device: keeps the right amount of sound
/// buffered, whatever the network and the two clocks do, and resamples to the device's rate.
/// One thread pushes into the queue, one renders. Times are given, not taken from a clock.
class Playout {
  public:
    /// `deviceRate` in Hz; `delayMs` is the sound to keep buffered.
    Playout(int deviceRate, double delayMs);

    /// Where the sound goes that is to be played.
    [[nodiscard]] BlockQueue& queue() { return queue_; }

    /// Writes `frames` stereo frames for the device. `now` (microseconds) is the time of the call.
    /// Thread: the one that renders. Realtime-safe: yes.
    void render(std::int16_t* output, std::size_t frames, std::int64_t now);

    /// Thread: any.
    [[nodiscard]] const PlayoutFigures& figures() const { return figures_; }

  private:
    void takeArrivals();
    void watchStart(std::size_t wanted);
    void watchDepth(double seconds);
    void skipDown();
    void stretch(BlockSource::Block& block);
    [[nodiscard]] bool stretchIsDue();
    void control(double seconds);
    void produce(std::size_t wanted);
    void playBlock();
    void resample(const std::int16_t* frames, std::size_t count);
    void prepareResampler(int rate);
    void correct(double ppm);
    [[nodiscard]] double depthMs() const;
    [[nodiscard]] double blockMs() const;
    [[nodiscard]] std::size_t waiting() const { return (fifoEnd_ - fifoStart_) / 2; }

    static constexpr std::size_t FIFO_SAMPLES = 1 << 15;

    int deviceRate_;
    BlockQueue queue_;
    BlockSource source_{queue_};
    DelayTarget target_;
    DriftControl drift_;
    /// One for each rate that a stream can have, made beforehand.
    std::array<Resampler, SAMPLE_RATES.size()> resamplers_;
    SpeexResamplerState* resampler_ = nullptr;  ///< The one in use.
    bool stretching_ = false;
    unsigned sinceStretch_ = 0;  ///< Packets.
    std::array<std::int16_t, 2 * (StreamDecoder::MAX_FRAMES + STRETCH_MOST_ADDED)> stretched_{};
    bool everPlayed_ = false;
    int streamRate_ = 0;
    double ratioCarry_ = 0;  ///< Part of the wanted ratio that rounding has left out so far.
    std::vector<std::int16_t> fifo_;  ///< Samples at the device's rate, fifoStart_ to fifoEnd_.
    std::size_t fifoStart_ = 0;
    std::size_t fifoEnd_ = 0;
    std::int64_t lastRender_ = -1;
    double meanDepth_ = 0;     ///< Milliseconds, over the last seconds.
    double sinceControl_ = 0;  ///< Seconds since the correction was set.
    PlayoutFigures figures_;
};

}  // namespace vxlisten
