// The listening client's ways from received packets to sound, the recorded and the played one: any
// row of packets at any time. An input is a row of packets, each with three bytes before it: the
// milliseconds since the last packet, and twice a part of its length (see lengthOf).

#include "listen/network/audio_packet.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "listen/audio/stream_decoder.h"
#include "listen/network/sequence_tracker.h"
#include "listen/playout/delay_target.h"
#include "listen/playout/drift_control.h"
#include "listen/playout/playout.h"
#include "listen/sinks/pcm_sink.h"
#include "listen/sinks/timeline.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

constexpr std::int64_t TIME_UNIT_US = 1000;
constexpr std::int64_t PERIOD_US = 10000;
constexpr int DEVICE_RATE = 48000;
constexpr std::size_t DEVICE_FRAMES = 480;
constexpr double CHOSEN_DELAY_MS = 40;
/// Longer pauses between two packets leave the device standing still for the rest.
constexpr int MAX_PERIODS = 8;

class CheckingSink : public vxlisten::PcmSink {
  public:
    vxlisten::SinkState write(const std::int16_t* frames, std::size_t count, int rate) override {
        require(rate == 44100 || rate == 48000, "there are two rates");
        require(count > 0 && count <= vxlisten::StreamDecoder::MAX_FRAMES, "a piece is bounded");
        int sum = 0;
        for (std::size_t i = 0; i < 2 * count; ++i) {
            sum |= frames[i];
        }
        seen = seen || sum != 0;
        return vxlisten::SinkState::Open;
    }

  private:
    bool seen = false;
};

/// The output device: asks for sound at its own pace.
class Device {
  public:
    void push(const vxlisten::DecodedBlock& block, std::int64_t now) {
        playout_->queue().push(block, now);
    }

    /// Advances the time to `now`.
    void playUntil(std::int64_t now) {
        for (int i = 0; i < MAX_PERIODS && time_ + PERIOD_US <= now; ++i) {
            time_ += PERIOD_US;
            playout_->render(sound_.data(), DEVICE_FRAMES, time_);
            check();
        }
        standUntil(now);
    }

    /// Asks for nothing until `now`.
    void standUntil(std::int64_t now) { time_ = std::max(time_, now - PERIOD_US); }

  private:
    void check() const {
        const vxlisten::PlayoutFigures& figures = playout_->figures();
        require(std::isfinite(figures.depthMs) && figures.depthMs >= 0, "the buffer has a depth");
        require(figures.targetMs >= vxlisten::DelayTarget::MINIMUM_MS &&
                    figures.targetMs <= vxlisten::DelayTarget::MAXIMUM_MS,
                "the wanted depth is bounded");
        require(std::abs(figures.correctionPpm) <= vxlisten::DriftControl::MAXIMUM_PPM,
                "the speed is bounded");
        require(std::isfinite(figures.jitterMs) && figures.jitterMs >= 0, "jitter is a time");
    }

    // Too large for the stack. The sound lies on the heap, with nothing behind it.
    std::unique_ptr<vxlisten::Playout> playout_ = std::make_unique<vxlisten::Playout>(
        DEVICE_RATE, vxlisten::PlayoutSettings{CHOSEN_DELAY_MS, true});
    std::vector<std::int16_t> sound_ = std::vector<std::int16_t>(2 * DEVICE_FRAMES);
    std::int64_t time_ = 0;
};

void checkPacket(const vxlisten::AudioPacket& packet, std::size_t bytes) {
    require(packet.payloadLength + wire::HEADER_LENGTH == bytes, "the payload is the rest");
    require(packet.payloadLength <= vxlisten::MAX_PAYLOAD, "no payload is longer than a block");
    require(packet.frames <= vxlisten::StreamDecoder::MAX_FRAMES, "the frames fit");
}

/// The three lower bits of `high` count 256s; the others have another use.
std::size_t lengthOf(std::size_t low, std::size_t high) {
    return low + 256U * (high % 8);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    CheckingSink sink;
    vxlisten::SequenceTracker tracker;
    vxlisten::StreamDecoder decoder;
    vxlisten::Timeline timeline;
    timeline.addSink(&sink);
    Device device;
    std::int64_t now = 0;
    while (!input.empty()) {
        now += TIME_UNIT_US * input.byte();
        const std::size_t low = input.byte();
        const std::size_t high = input.byte();
        const std::vector<unsigned char> bytes = input.exactBytes(lengthOf(low, high));
        const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
        if (packet) {
            checkPacket(*packet, bytes.size());
            const vxlisten::SequenceStep step = tracker.observe(*packet);
            const vxlisten::DecodedBlock sound = decoder.decode(
                *packet, step,
                [&](const vxlisten::DecodedBlock& block) { device.push(block, now); });
            timeline.take(*packet, step, sound, now);
        }
        const bool deviceStands = high >= 0x80;
        if (deviceStands) {
            device.standUntil(now);
        } else {
            device.playUntil(now);
        }
    }
    return 0;
}
