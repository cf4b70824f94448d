#include "listen/device/sound_keeper.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <chrono>
#include <cstdio>
#include <utility>

#include "listen/background.h"
#include "listen/clock.h"
#include "listen/device/priority.h"
#include "listen/playout/playout.h"

namespace vxlisten {

namespace {

constexpr std::chrono::seconds CLOSE_TIMEOUT{2};
/// A program that ends while a sound library starts can leave locks in shared memory that block the
/// next one.
constexpr std::chrono::seconds OPEN_TIMEOUT{10};
/// After playing this long the back-off starts over.
constexpr std::int64_t STABLE_TIME = 10 * SECOND;
/// A device that requests nothing for this long counts as gone. A sound server may pause a stream
/// for some seconds.
constexpr std::int64_t DEVICE_TIMEOUT = 10 * SECOND;

constexpr double CLEARLY_LONGER = 2;  ///< Times the delay that was reported.

std::string requestText(double milliseconds) {
    char text[64];
    std::snprintf(text, sizeof text, "requesting %.0f ms of latency", milliseconds);
    return text;
}

/// A long --delay leaves room for a safe latency.
double firstLatency(const PlayoutSettings& settings) {
    constexpr double LONG_DELAY_MS = 2.5 * DeviceLatency::FIRST_MS;
    return settings.delayMs.value_or(0) < LONG_DELAY_MS && realTimeAllowed()
               ? DeviceLatency::REAL_TIME_MS
               : DeviceLatency::FIRST_MS;
}

}  // namespace

SoundKeeper::SoundKeeper(std::string device, const PlayoutSettings& settings)
    : device_(std::move(device)),
      settings_(settings),
      latency_(firstLatency(settings)),
      queue_(Playout::makeQueue(settings)) {}

SoundKeeper::~SoundKeeper() {
    if (opening_.valid() && opening_.wait_for(OPEN_TIMEOUT) != std::future_status::ready) {
        giveUp();
        return;
    }
    if (opening_.valid()) {
        output_ = opening_.get();
    }
    if (output_ == nullptr && gone_ == nullptr) {
        return;
    }
    auto closing = inBackground([output = std::move(output_), gone = std::move(gone_)]() mutable {
        output.reset();
        gone.reset();
    });
    if (closing.wait_for(CLOSE_TIMEOUT) != std::future_status::ready) {
        giveUp();
    }
}

void SoundKeeper::giveUp() {
    mute_.abandon();
    noteAbandoned();
}

bool SoundKeeper::open(std::int64_t now) {
    output_ = std::make_unique<AudioOutput>();
    if (!output_->open(device_, settings_, latency_.milliseconds(), queue_)) {
        error_ = output_->error();
        output_.reset();
        return false;
    }
    noteOpened(std::max(now, steadyNow()));  // Opening may have taken seconds.
    return true;
}

void SoundKeeper::noteOpened(std::int64_t now) {
    raisePriority();
    openedAt_ = lastCall_ = now;
    calls_ = 0;
    latency_.noteOpened(now);
}

bool SoundKeeper::isGone(std::int64_t now) {
    const std::uint64_t calls = output_->calls();
    lastCall_ = calls != calls_ ? now : lastCall_;
    calls_ = calls;
    return !output_->alive() || now - lastCall_ >= DEVICE_TIMEOUT;
}

BlockQueue* SoundKeeper::queue() {
    assert(thread_.here());
    return output_ != nullptr || settings_.delayMs ? queue_.get() : nullptr;
}

void SoundKeeper::reopen() {
    if (!settings_.delayMs) {
        queue_ = Playout::makeQueue(settings_);
    }
    opening_ = inBackground([old = std::move(gone_), device = device_, settings = settings_,
                             latency = latency_.milliseconds(), queue = queue_]() mutable {
        old.reset();  // PortAudio lists devices again only when nothing uses it.
        auto output = std::make_unique<AudioOutput>();
        if (!output->open(device, settings, latency, std::move(queue))) {
            output.reset();
        }
        return output;
    });
}

std::string SoundKeeper::watch(std::int64_t now) {
    assert(thread_.here());
    if (opening_.valid()) {
        return isReady(opening_) ? takeOpened(now) : std::string();
    }
    if (output_ == nullptr) {
        if (now >= nextTry_) {
            reopen();
        }
        return {};
    }
    if (isGone(now)) {
        return lose(now);
    }
    if (now - openedAt_ >= STABLE_TIME) {
        pause_.reset();
    }
    const bool fits = !settings_.delayMs || output_->spareDelayMs() >= latency_.milliseconds();
    return latency_.noteUnderruns(output_->deviceUnderruns(), now, fits) ? raiseLatency()
                                                                         : delayMessage();
}

/// A message when the chosen delay is not possible or the latency unknown, each once; again when
/// the delay has become clearly longer.
std::string SoundKeeper::delayMessage() {
    char text[128];
    if (!settings_.delayMs) {
        return {};
    }
    const double needed = output_->neededDelayMs();
    if (needed > CLEARLY_LONGER * reportedDelayMs_) {
        reportedDelayMs_ = needed;
        std::snprintf(text, sizeof text, "a delay of %g ms is too short, using %.0f ms",
                      *settings_.delayMs, needed);
        return text;
    }
    if (!reportedNominal_ && output_->latencyIsNominal()) {
        reportedNominal_ = true;
        std::snprintf(text, sizeof text,
                      "the output device does not report its latency, assuming %.0f ms",
                      output_->figures().outputLatencyMs);
        return text;
    }
    return {};
}

std::string SoundKeeper::takeOpened(std::int64_t now) {
    output_ = opening_.get();
    if (output_ == nullptr) {
        nextTry_ = now + pause_.next() * MILLISECOND;
        return lostMessage();
    }
    noteOpened(now);
    const bool wasLost = lost_;
    lost_ = false;
    return wasLost ? "playing again" : std::string();
}

std::string SoundKeeper::lose(std::int64_t now) {
    past_ = figures();
    gone_ = std::move(output_);
    nextTry_ = now + pause_.next() * MILLISECOND;
    return lostMessage();
}

/// The message that the device is gone, once until it is back.
std::string SoundKeeper::lostMessage() {
    const bool wasLost = lost_;
    lost_ = true;
    return wasLost ? std::string() : "the output device is gone, trying to reopen it";
}

std::string SoundKeeper::raiseLatency() {
    past_ = figures();
    gone_ = std::move(output_);
    reopen();
    return "repeated underruns of the output device, " + requestText(latency_.milliseconds());
}

Playback SoundKeeper::figures() const {
    Playback result;
    if (output_ != nullptr) {
        result = output_->figures();
    } else {
        result.device = !lost_;
    }
    result.concealed += past_.concealed;
    result.skipped += past_.skipped;
    result.stretched += past_.stretched;
    result.underruns += past_.underruns;
    result.deviceUnderruns += past_.deviceUnderruns;
    return result;
}

}  // namespace vxlisten
