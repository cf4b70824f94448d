#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/thread_check.h"
#include "listen/audio/level_meter.h"
#include "listen/audio/stream_decoder.h"
#include "listen/console/statistics.h"
#include "listen/device/sound_keeper.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "listen/options.h"
#include "listen/playout/send_clock.h"
#include "listen/sinks/pcm_sink.h"
#include "listen/sinks/pipe_sink.h"
#include "listen/sinks/recorder.h"
#include "listen/sinks/timeline.h"

namespace vxlisten {

/// The destinations of the audio: levels, recording, pipe and output device, as the options choose.
/// Everything on one thread.
class Outputs {
  public:
    /// Opens the outputs of `options`. False on failure, see error(). When there is a recording, a
    /// device that cannot be opened is only a warning.
    [[nodiscard]] bool open(const Options& options);

    /// Passes on a packet that arrived at `now` (microseconds). Returns the state of the sinks.
    SinkState take(const AudioPacket& packet, const SequenceStep& step, std::int64_t now);

    /// Notes a round-trip time in microseconds.
    void noteRoundTrip(double roundTrip) { sendClock_.noteRoundTrip(roundTrip); }

    /// Checks the outputs; to be called several times a second. Returns their state; `news` is a
    /// message for the user when something happened to the output device.
    SinkState watch(std::int64_t now, std::string& news);

    /// Writes silence for the sound that is missing while there is no connection; then to be called
    /// several times a second. Returns the state of the sinks.
    SinkState passSilence(std::int64_t now);

    /// Completes the recording. Failed: see error().
    SinkState finish();

    /// Adds the outputs' figures to `statistics`, levels since the last clearLevels().
    void describe(Statistics& statistics);

    /// Levels of all sound, instead of the recent ones.
    void describeWholeLevel(Statistics& statistics) const;

    void clearLevels() { timeline_.recentLevel().clear(); }

    /// One sentence each, without a line end; empty for none.
    [[nodiscard]] const std::string& error() const { return error_; }
    [[nodiscard]] const std::string& warning() const { return warning_; }

  private:
    [[nodiscard]] bool openSound(const Options& options);
    SinkState judge(const PcmSink* stopped);

    StreamDecoder decoder_;
    SendClock sendClock_;
    double delaySeconds_ = 0;  ///< To be kept; 0 for none.
    bool starts_ = false;      ///< A stream to be played, since the last watch().
    unsigned jumpsReported_ = 0;
    Timeline timeline_;
    std::unique_ptr<Recorder> recorder_;
    std::unique_ptr<PipeSink> pipe_;
    std::unique_ptr<SoundKeeper> sound_;
    std::string error_;
    std::string warning_;
    ThreadCheck thread_;
};

}  // namespace vxlisten
