#pragma once

#include <cstdint>
#include <future>
#include <memory>
#include <string>

#include "common/thread_check.h"
#include "listen/device/audio_output.h"
#include "listen/device/device_latency.h"
#include "listen/device/playback.h"
#include "listen/device/stderr_mute.h"
#include "listen/playout/block_queue.h"
#include "listen/retry_pause.h"

namespace vxlisten {

/// Keeps the sound playing: opens the output device, reopens it with back-off when it is gone, and
/// with more latency after repeated underruns. All openings but the first run in the background,
/// while packets are received, recorded and piped. Everything on one thread.
class SoundKeeper {
  public:
    /// `device` as for AudioOutput::open().
    SoundKeeper(std::string device, const PlayoutSettings& settings);

    /// Waits for background work, but not for a sound library that hangs.
    ~SoundKeeper();
    SoundKeeper(const SoundKeeper&) = delete;
    SoundKeeper& operator=(const SoundKeeper&) = delete;

    /// Opens the device for the first time. May take a moment. False on failure, see error().
    [[nodiscard]] bool open(std::int64_t now);

    /// The queue of the sound to play, valid until the next watch(). With a chosen delay it holds
    /// the sound while a device is reopened; else it is null while there is no device.
    [[nodiscard]] BlockQueue* queue();

    /// Checks the device; to be called several times a second. Returns a message for the user when
    /// something happened, else an empty text. Does not block.
    std::string watch(std::int64_t now);

    /// The figures of the playing side, counted over all openings.
    [[nodiscard]] Playback figures() const;

    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    using OutputPointer = std::unique_ptr<AudioOutput>;

    void reopen();
    std::string takeOpened(std::int64_t now);
    std::string lose(std::int64_t now);
    std::string lostMessage();
    void giveUp();
    std::string raiseLatency();
    void noteOpened(std::int64_t now);
    bool isGone(std::int64_t now);
    std::string delayMessage();

    StderrMute mute_;
    std::string device_;
    PlayoutSettings settings_;
    DeviceLatency latency_;
    RetryPause pause_;
    std::shared_ptr<BlockQueue> queue_;
    OutputPointer output_;  ///< Null while there is no device.
    OutputPointer gone_;    ///< A device that is gone and still has to be closed.
    std::future<OutputPointer> opening_;
    bool lost_ = false;             ///< Printed: that the device is gone,
    double reportedDelayMs_ = 0;    ///< that this replaces the chosen delay (0: not printed),
    bool reportedNominal_ = false;  ///< and that the device does not report its latency.
    std::int64_t openedAt_ = 0;
    std::uint64_t calls_ = 0;    ///< The device's count of calls at the last check,
    std::int64_t lastCall_ = 0;  ///< and when that count last rose.
    std::int64_t nextTry_ = 0;
    Playback past_;  ///< Counts of the openings before this one.
    std::string error_;
    ThreadCheck thread_;
};

}  // namespace vxlisten
