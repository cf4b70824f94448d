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

/// Keeps the sound playing: opens the output device, opens it again with growing pauses when it
/// goes, and with more latency when it runs dry again and again. Everything but the first opening
/// happens in the background, so that packets are received, recorded and piped on meanwhile.
/// Everything on one thread.
class SoundKeeper {
  public:
    /// `device` as for AudioOutput::open().
    SoundKeeper(std::string device, const PlayoutSettings& settings);

    /// Waits for the background, but not for a sound library that hangs.
    ~SoundKeeper();
    SoundKeeper(const SoundKeeper&) = delete;
    SoundKeeper& operator=(const SoundKeeper&) = delete;

    /// Opens the device for the first time. May take a moment. False on failure, see error().
    [[nodiscard]] bool open(std::int64_t now);

    /// Where the sound goes that is to be played, until watch() is called again; null while there
    /// is no device.
    [[nodiscard]] BlockQueue* queue();

    /// Looks after the device; to be called several times a second. Returns a sentence for the
    /// user when something happened, else an empty text. Does not block.
    std::string watch(std::int64_t now);

    /// The figures of the playing side, counted over all openings.
    [[nodiscard]] Playback figures() const;

    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    using OutputPointer = std::unique_ptr<AudioOutput>;

    void reopen();
    std::string takeOpened(std::int64_t now);
    std::string lose(std::int64_t now);
    std::string tellLost();
    void giveUp();
    std::string askForMore();
    void noteOpened(std::int64_t now);
    bool hasGone(std::int64_t now);
    std::string tellDelay();

    StderrMute mute_;
    std::string device_;
    PlayoutSettings settings_;
    DeviceLatency latency_;
    RetryPause pause_;
    OutputPointer output_;  ///< Null while there is none to play on.
    OutputPointer gone_;    ///< One that has gone and is still to be closed.
    std::future<OutputPointer> opening_;
    bool lost_ = false;         ///< The user has been told that the device has gone,
    double toldDelayMs_ = 0;    ///< that it plays at this in place of the chosen delay (0: not),
    bool toldNominal_ = false;  ///< and that it does not say when its sound is heard.
    std::int64_t openedAt_ = 0;
    std::uint64_t calls_ = 0;    ///< The device's count of calls when it was last looked at,
    std::int64_t lastCall_ = 0;  ///< and when that count last rose.
    std::int64_t nextTry_ = 0;
    Playback past_;  ///< Counts of the openings before this one.
    std::string error_;
    ThreadCheck thread_;
};

}  // namespace vxlisten
