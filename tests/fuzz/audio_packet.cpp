// The listening client's way from received packets to sound: any row of packets at any time.
// An input is a row of packets, each with a time and a length before it.

#include "listen/audio_packet.h"

#include "listen/pcm_sink.h"
#include "listen/sequence_tracker.h"
#include "listen/timeline.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

constexpr std::int64_t TIME_UNIT_US = 1000;

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

    vxlisten::SinkState finish() override { return vxlisten::SinkState::Open; }
    [[nodiscard]] std::string error() const override { return {}; }

  private:
    bool seen = false;
};

void checkPacket(const vxlisten::AudioPacket& packet, const std::string& bytes) {
    require(packet.payloadLength + wire::HEADER_LENGTH == bytes.size(), "the payload is the rest");
    require(packet.payloadLength <= vxlisten::MAX_PAYLOAD, "no payload is longer than a block");
    require(packet.frames <= vxlisten::StreamDecoder::MAX_FRAMES, "the frames fit");
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    CheckingSink sink;
    vxlisten::SequenceTracker tracker;
    vxlisten::Timeline timeline;
    timeline.addSink(&sink);
    std::int64_t now = 0;
    while (!input.empty()) {
        now += TIME_UNIT_US * input.byte();
        const std::size_t length = input.byte() + 256U * (input.byte() % 8);
        const std::string bytes = input.bytes(length);
        const auto packet = vxlisten::parseAudioPacket(
            reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        if (packet) {
            checkPacket(*packet, bytes);
            timeline.take(*packet, tracker.observe(*packet), now);
        }
    }
    return 0;
}
