#include "listen/outputs.h"

#include <cassert>
#include <cstdio>
#include <optional>
#include <unistd.h>
#include <utility>

#include "listen/clock.h"

namespace vxlisten {

namespace {

constexpr double LONG_DELAY_SECONDS = 2;

}  // namespace

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
    sound_ = std::make_unique<SoundKeeper>(options.device, options.playout);
    if (sound_->open(steadyNow())) {
        delaySeconds_ = options.playout.delayMs.value_or(0) / 1000.0;
        return true;
    }
    const std::string reason = sound_->error();
    sound_.reset();
    if (recorder_ != nullptr && options.device.empty()) {
        warning_ = reason + "; recording only";
        return true;
    }
    error_ = reason + (options.device.empty() ? " (use --no-play to listen without one)"
                                              : " (see --list-devices)");
    return false;
}

SinkState Outputs::take(const AudioPacket& packet, const SequenceStep& step, std::int64_t now) {
    assert(thread_.here());
    BlockQueue* const played = sound_ != nullptr ? sound_->queue() : nullptr;
    const DecodedBlock sound =
        decoder_.decode(packet, step, [this, &packet, played, now](const DecodedBlock& block) {
            const SendTime sent = sendClock_.next(block, packet, now);
            if (played != nullptr) {
                starts_ = starts_ || block.join == Join::NewStream;
                played->push(block, now, sent);
            }
        });
    return judge(timeline_.take(packet, step, sound, now));
}

SinkState Outputs::passSilence(std::int64_t now) {
    return judge(timeline_.pass(now));
}

SinkState Outputs::judge(const PcmSink* stopped) {
    if (stopped == nullptr) {
        return SinkState::Open;
    }
    error_ = stopped->error();
    return error_.empty() ? SinkState::Closed : SinkState::Failed;
}

SinkState Outputs::watch(std::int64_t now, std::string& news) {
    assert(thread_.here());
    if (sound_ != nullptr) {
        news = sound_->watch(now);
    }
    if (news.empty() && delaySeconds_ > 0 && sendClock_.jumps() != jumpsReported_) {
        jumpsReported_ = sendClock_.jumps();
        news = "the server's clock has jumped, synchronizing again";
    }
    if (news.empty() && std::exchange(starts_, false) && delaySeconds_ >= LONG_DELAY_SECONDS &&
        !sound_->figures().playing) {
        char text[64];
        std::snprintf(text, sizeof text, "what the server sends now is heard in %g s",
                      delaySeconds_);
        news = text;
    }
    return pipe_ != nullptr && pipe_->readerGone() ? SinkState::Closed : SinkState::Open;
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
    if (sound_ != nullptr) {
        statistics.playback = sound_->figures();
    }
}

void Outputs::describeWholeLevel(Statistics& statistics) const {
    const LevelMeter& level = timeline_.level();
    statistics.peakDbfs = {level.peakDbfs(0), level.peakDbfs(1)};
    statistics.rmsDbfs = {level.rmsDbfs(0), level.rmsDbfs(1)};
}

}  // namespace vxlisten
