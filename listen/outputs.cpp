#include "listen/outputs.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <optional>
#include <unistd.h>

#include "listen/playout.h"

namespace vxlisten {

bool Outputs::open(const Options& options) {
    if (!options.recordPath.empty()) {
        recorder_ = std::make_unique<Recorder>();
        if (!recorder_->open(options.recordPath)) {
            error_ = recorder_->error();
            return false;
        }
        timeline_.addSink(recorder_.get());
    }
    if (options.toStdout) {
        pipe_ = std::make_unique<PipeSink>(STDOUT_FILENO);
        timeline_.addSink(pipe_.get());
    }
    return !options.play || openSound(options);
}

bool Outputs::openSound(const Options& options) {
    sound_ = std::make_unique<AudioOutput>();
    if (sound_->open(options.device, options.bufferMs)) {
        return true;
    }
    const std::string reason = sound_->error();
    sound_.reset();
    if (recorder_ != nullptr && options.device.empty()) {
        warning_ = reason + "; recording without it";
        return true;
    }
    error_ = reason + " (--no-play listens without it)";
    return false;
}

SinkState Outputs::take(const AudioPacket& packet, const SequenceStep& step, std::int64_t now) {
    if (sound_ != nullptr) {
        stream_ += step.arrival == Arrival::Start ? 1 : 0;
        sound_->push(packet, stream_, now);
    }
    const PcmSink* const stopped = timeline_.take(packet, step, now);
    if (stopped == nullptr) {
        return SinkState::Open;
    }
    error_ = stopped->error();
    return error_.empty() ? SinkState::Closed : SinkState::Failed;
}

bool Outputs::alive() {
    if (sound_ != nullptr && !sound_->alive()) {
        error_ = "the output device has gone";
        return false;
    }
    return true;
}

SinkState Outputs::finish() {
    if (recorder_ == nullptr || recorder_->finish() != SinkState::Failed) {
        return SinkState::Open;
    }
    error_ = recorder_->error();
    return SinkState::Failed;
}

void Outputs::describe(Statistics& statistics) {
    statistics.frames = timeline_.framesDecoded();
    statistics.filledFrames = timeline_.framesFilled();
    statistics.damaged += timeline_.damaged();
    const LevelMeter& level = timeline_.recentLevel();
    statistics.peakDbfs = {level.peakDbfs(0), level.peakDbfs(1)};
    statistics.rmsDbfs = {level.rmsDbfs(0), level.rmsDbfs(1)};
    if (sound_ == nullptr) {
        return;
    }
    const PlayoutFigures& figures = sound_->figures();
    Playback& playback = statistics.playback.emplace();
    playback.playing = figures.playing;
    playback.bufferMs = figures.depthMs;
    playback.targetMs = figures.targetMs;
    playback.jitterMs = figures.jitterMs;
    playback.outputLatencyMs = sound_->latencyMs();
    playback.correctionPpm = figures.correctionPpm;
    playback.concealed = figures.concealed;
    playback.skipped = figures.skipped;
    playback.underruns = figures.underruns + sound_->deviceUnderruns();
    statistics.late = std::max(statistics.late, figures.late.load());
}

void Outputs::describeWholeLevel(Statistics& statistics) const {
    const LevelMeter& level = timeline_.level();
    statistics.peakDbfs = {level.peakDbfs(0), level.peakDbfs(1)};
    statistics.rmsDbfs = {level.rmsDbfs(0), level.rmsDbfs(1)};
}

}  // namespace vxlisten
