// A client that checks the sound that it gets through a real sound server. Usage: path_client PORT
// RATE_CODE RELIABLE(0|1) OUTPUT tone|clicks     Ends with standard input.
//
// OUTPUT gets a line for every event, the time of arrival (CLOCK_MONOTONIC, nanoseconds) first:
//   gap N        N sequence numbers are missing before this packet
//   back N       a sequence number that is N behind the expected one
// and, raw sound only,
//   silence      a packet of nothing but zeros
//   glitch       a packet in which the tone on the left (1 kHz at 48 kHz) is not continued, or the
//                counter on the right, which grows by one every 48 frames and begins again at
//                -30000 after 29999
//   click FRAME  a click begins at this frame of the packet (clicks only)
// and a last line "packets N".

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "stream/wire_format.h"
#include "tests/support/audio_client.h"

namespace {

constexpr double TONE_PER_RATE = 1000.0 / 48000.0;
constexpr double TONE_TOLERANCE = 64;  // Rounding alone makes at most 2.
constexpr int CLICK_LEVEL = 8000;
constexpr int COUNTER_FRAMES = 48;  // One millisecond.
constexpr int COUNTER_FIRST = -30000;
constexpr int COUNTER_LAST = 29999;

class Judge {
  public:
    Judge(std::FILE* file, bool raw, bool wantsClicks)
        : output(file), isRaw(raw), clicks(wantsClicks) {}

    void take(const ENetPacket& packet, std::int64_t time) {
        if (packet.dataLength < wire::HEADER_LENGTH) {
            return;
        }
        judgeSequence(wire::readHeader(packet.data, packet.dataLength).seq, time);
        if (isRaw) {
            readSides(packet);
            clicks ? findClick(time) : judgeSound(time);
        }
    }

  private:
    void judgeSequence(std::uint32_t seq, std::int64_t time) {
        const auto distance = static_cast<std::int32_t>(seq - expected);
        if (started && distance != 0) {
            std::fprintf(output, "%" PRId64 " %s %d\n", time, distance > 0 ? "gap" : "back",
                         std::abs(distance));
            history = 0;
            held = -1;
        }
        if (!started || distance >= 0) {
            expected = seq + 1;
        }
        started = true;
    }

    void readSides(const ENetPacket& packet) {
        left.resize((packet.dataLength - wire::HEADER_LENGTH) / wire::BYTES_PER_FRAME);
        right.resize(left.size());
        const unsigned char* frame = packet.data + wire::HEADER_LENGTH;
        for (std::size_t i = 0; i < left.size(); ++i, frame += wire::BYTES_PER_FRAME) {
            std::memcpy(&left[i], frame, sizeof left[i]);
            std::memcpy(&right[i], frame + sizeof left[i], sizeof right[i]);
        }
    }

    void judgeSound(std::int64_t time) {
        const bool silent = std::all_of(left.begin(), left.end(), [](int s) { return s == 0; });
        bool good = true;
        for (std::size_t i = 0; i < left.size(); ++i) {
            const bool continues = continuesTone(left[i]);
            good = continuesCounter(right[i]) && continues && good;
        }
        if (silent || !good) {
            std::fprintf(output, "%" PRId64 " %s\n", time, silent ? "silence" : "glitch");
        }
    }

    /// A sine wave continues itself: each sample follows from the two before it.
    bool continuesTone(std::int16_t sample) {
        static const double FACTOR = 2 * std::cos(2 * M_PI * TONE_PER_RATE);
        const bool known = history >= 2;
        const double expectedSample = FACTOR * last - beforeLast;
        beforeLast = last;
        last = sample;
        history += known ? 0 : 1;
        return !known || std::abs(expectedSample - sample) <= TONE_TOLERANCE;
    }

    /// Shows lost or repeated frames even when they are whole periods of the tone.
    bool continuesCounter(int count) {
        const int before = std::exchange(counter, count);
        const int heldBefore = held;
        if (count == before || held < 0) {
            held = held < 0 ? 0 : held + (heldBefore > 0 ? 1 : 0);
            return held <= COUNTER_FRAMES;
        }
        held = 1;
        const int next = before == COUNTER_LAST ? COUNTER_FIRST : before + 1;
        return count == next && (heldBefore == 0 || heldBefore == COUNTER_FRAMES);
    }

    void findClick(std::int64_t time) {
        for (std::size_t frame = 0; frame < left.size(); ++frame) {
            const bool loud = std::abs(left[frame]) > CLICK_LEVEL;
            if (loud && quietFrames > left.size()) {
                std::fprintf(output, "%" PRId64 " click %zu\n", time, frame);
            }
            quietFrames = loud ? 0 : quietFrames + 1;
        }
    }

    std::FILE* output;
    bool isRaw;
    bool clicks;
    bool started = false;
    std::uint32_t expected = 0;
    std::vector<std::int16_t> left;
    std::vector<std::int16_t> right;
    int counter = 0;
    int held = -1;    ///< Frames of the present count; 0: an unknown number, below: no count yet.
    int history = 0;  ///< Samples known before the next one, at most 2.
    double last = 0;
    double beforeLast = 0;
    std::size_t quietFrames = 0;
};

}  // namespace

int main(int argc, char** argv) {
    std::FILE* const output = argc == 6 ? std::fopen(argv[4], "we") : nullptr;
    if (output == nullptr || enet_initialize() != 0) {
        std::fputs("usage: path_client PORT RATE_CODE RELIABLE OUTPUT tone|clicks\n", stderr);
        return 2;
    }
    std::setvbuf(output, nullptr, _IOLBF, BUFSIZ);
    const AudioChoice choice{static_cast<enet_uint16>(std::atoi(argv[1])),
                             static_cast<std::uint32_t>(std::atoi(argv[2])),
                             std::atoi(argv[3]) != 0};
    Judge judge(output, choice.rateCode == wire::RATE_CODE_RAW,
                std::strcmp(argv[5], "clicks") == 0);
    const long packets = receiveAudio(
        choice,
        [&judge](const ENetPacket& packet, std::int64_t time) { judge.take(packet, time); });
    std::fprintf(output, "packets %ld\n", packets);
    return std::fclose(output) == 0 && packets > 0 ? 0 : 1;
}
