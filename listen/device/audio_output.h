#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <portaudio.h>

#include "listen/device/playback.h"
#include "listen/playout/block_queue.h"
#include "listen/playout/playout.h"

namespace vxlisten {

/// An output device that the user can choose.
struct OutputDevice {
    PaDeviceIndex index = paNoDevice;
    std::string name;
    bool isDefault = false;
};

/// Plays the stream on an output device. Opening and closing belong to one thread; the sound is
/// rendered on PortAudio's thread.
class AudioOutput {
  public:
    AudioOutput() = default;
    ~AudioOutput();
    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    /// The output devices of this machine, the default one first. May take a moment.
    static std::vector<OutputDevice> devices();

    /// Opens and starts a device: the one whose name is `device`, else the first whose name
    /// contains it, or the default for an empty text. `latencyMs` is the minimum latency of the
    /// device itself. Plays what `queue` holds. False on failure, see error().
    [[nodiscard]] bool open(const std::string& device, const PlayoutSettings& settings,
                            double latencyMs, std::shared_ptr<BlockQueue> queue);

    /// False once the device is gone.
    [[nodiscard]] bool alive() const;

    /// Times that the device asked for sound.
    [[nodiscard]] std::uint64_t calls() const { return calls_; }

    /// Figures of the playing side; only when open.
    [[nodiscard]] Playback figures() const;

    /// The minimum delay from the sending to the loudspeaker that is possible, in milliseconds,
    /// when that is more than the chosen one; else 0.
    [[nodiscard]] double neededDelayMs() const { return playout_->figures().neededMs; }

    /// By how many milliseconds the chosen delay exceeds that minimum.
    [[nodiscard]] double spareDelayMs() const { return playout_->figures().spareMs; }

    /// True when the device does not report its latency.
    [[nodiscard]] bool latencyIsNominal() const { return playout_->figures().nominalLatency; }

    /// Underruns of the device itself.
    [[nodiscard]] std::uint64_t deviceUnderruns() const { return deviceUnderruns_; }

    /// One sentence about what went wrong, without a line end.
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    static int onOutput(const void* input, void* output, unsigned long frames,
                        const PaStreamCallbackTimeInfo* time, PaStreamCallbackFlags flags,
                        void* self);
    bool fail(const std::string& reason);
    [[nodiscard]] double outputLatencyMs() const;
    bool start(PaDeviceIndex device, const PlayoutSettings& settings, double latencyMs,
               std::shared_ptr<BlockQueue> queue);
    void render(std::int16_t* output, std::size_t frames, double latency, bool underflow);

    bool initialized_ = false;
    PaStream* stream_ = nullptr;  ///< Owned.
    std::unique_ptr<Playout> playout_;
    std::atomic<std::uint64_t> deviceUnderruns_{0};
    std::atomic<std::uint64_t> calls_{0};
    std::string error_;
};

}  // namespace vxlisten
