// The endless streams of velantrix-web: any row of packets at any time. An input is the choice of a
// format, then a row of packets as in audio_packet.cpp, each with three bytes before it: the
// milliseconds since the last packet, and twice a part of its length.

#include "web/streams/media_stream.h"

#include <algorithm>
#include <array>

#include "tests/fuzz/fuzz_input.h"

namespace {

using vxweb::StreamFormat;

constexpr std::int64_t MILLISECOND = 1000;
constexpr std::int64_t SECOND = 1000 * MILLISECOND;
constexpr std::int64_t PASS_EVERY = 20 * MILLISECOND;
constexpr std::int64_t OUTAGE = 3 * SECOND;
/// How far ahead of time a stream may be.
constexpr std::int64_t MAX_LEAD = SECOND / 2;
constexpr std::size_t WAV_BYTES_PER_SECOND = 4 * 48000;

struct Choice {
    StreamFormat format;
    int rate;
};
constexpr std::array<Choice, 5> CHOICES = {{{StreamFormat::Wav, 0},
                                            {StreamFormat::Flac, 0},
                                            {StreamFormat::Mp3, 128},
                                            {StreamFormat::Ogg, 128},
                                            {StreamFormat::Ogg, 20}}};

/// Judges what is emitted.
class Listener {
  public:
    explicit Listener(StreamFormat format) : format_(format) {}

    void hear(const vxweb::Chunk& chunk, std::int64_t now) {
        require(chunk != nullptr && !chunk->empty(), "a chunk has bytes");
        first_ = bytes_ == 0 ? now : first_;
        bytes_ += chunk->size();
        switch (format_) {
            case StreamFormat::Wav:
                require(chunk->size() % 4 == 0, "frames are whole");
                require(static_cast<std::int64_t>(bytes_ * SECOND / WAV_BYTES_PER_SECOND) <=
                            now - first_ + MAX_BEGIN + MAX_LEAD,
                        "the stream is not ahead of time");
                break;
            case StreamFormat::Ogg:
                require(chunk->compare(0, 4, "OggS") == 0, "a chunk begins with a page");
                break;
            default:
                require((*chunk)[0] == '\xFF', "a chunk begins with a frame");
        }
    }

  private:
    /// What the first chunk may hold: a packet, or silence for an outage before it.
    static constexpr std::int64_t MAX_BEGIN = 2 * SECOND;

    StreamFormat format_;
    std::size_t bytes_ = 0;
    std::int64_t first_ = 0;
};

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const Choice& choice = CHOICES[input.byte() % CHOICES.size()];
    const auto stream = vxweb::makeMediaStream(choice.format, choice.rate, "fuzz");
    Listener listener(choice.format);
    vxlisten::SequenceTracker tracker;
    std::int64_t now = 0;
    const auto emit = [&](const vxweb::Chunk& chunk) { listener.hear(chunk, now); };
    while (!input.empty()) {
        const std::int64_t pause = MILLISECOND * input.byte();
        const std::size_t low = input.byte();
        const std::size_t high = input.byte();
        const std::int64_t end = now + pause + (high >= 0x80 ? OUTAGE : 0);
        for (; now + PASS_EVERY <= end; now += PASS_EVERY) {
            stream->pass(now, emit);
        }
        now = end;
        const auto bytes = input.exactBytes(low + 256U * (high % 8));
        const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
        if (packet) {
            stream->take(*packet, tracker.observe(*packet), now, emit);
        }
    }
    return 0;
}
