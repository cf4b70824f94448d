// Delay of the listening client: from the server's callback to the client's output buffer.
//
// A server of our own queues a raw block to ENet every 338 frames, or a block of 480 frames as soon
// as they are there and 1 ms later, as the capture callback does for raw and for compressed sound.
// The client's receiver and playing side work as in the program, with a device that asks for 480
// frames every 10 ms. Every half second one block carries a click; the delay is the time from
// queueing the block to the moment at which its first sample is in the output buffer, exact to a
// sample. What is not in it: the capture before and the device's own buffer after. Nobody has
// chosen a buffer: the first two minutes, in which it shrinks, are not judged.
//
// Comma-separated values: what is sent, the median, the least and the greatest delay in
// milliseconds, that which 99 of 100 clicks stay below, the number of clicks, and how often the
// sound was missing, those two minutes included. The shape to expect: a packet, the 5 ms of safety,
// and a device buffer that waits for its turn: 15 to 20 ms, and 5 ms more for compressed sound,
// which comes less evenly.
//
// Everything crosses the loopback interface; nothing answers from outside.
//
// Usage: listen_delay [SECONDS]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "listen/audio/stream_decoder.h"
#include "listen/clock.h"
#include "listen/device/priority.h"
#include "listen/network/receiver.h"
#include "listen/network/sequence_tracker.h"
#include "listen/playout/playout.h"
#include "tests/support/enet_server.h"
#include "tests/support/packets.h"

namespace {

constexpr int RATE = 48000;
constexpr std::size_t PERIOD_FRAMES = 480;
constexpr std::uint32_t CLICK_INTERVAL = 53;  ///< Blocks.
constexpr std::uint32_t CODE_WITHOUT_ENCODER = 4;
constexpr std::int16_t CLICK = 20000;
constexpr std::int64_t SETTLING = 120 * vxlisten::SECOND;

std::atomic<bool> stop{false};
bool compressed = false;
std::atomic<std::int64_t> clickSent{0};  ///< Microseconds; 0 once heard.

void sleepUntil(std::int64_t time) {
    std::this_thread::sleep_for(std::chrono::microseconds(time - vxlisten::steadyNow()));
}

void sendBlock(EnetServer& server, std::uint32_t seq) {
    packets::Bytes bytes((compressed ? wire::COMPRESSED_BUFFER_LENGTH : wire::RAW_BUFFER_LENGTH) -
                         wire::HEADER_LENGTH);
    if (seq % CLICK_INTERVAL == 0) {
        for (std::size_t i = 0; i < 200; ++i) {
            bytes[2 * i] = CLICK & 0xFF;
            bytes[2 * i + 1] = CLICK >> 8;
        }
        clickSent = vxlisten::steadyNow();
    }
    const std::uint32_t code = compressed ? CODE_WITHOUT_ENCODER : wire::RATE_CODE_RAW;
    server.send(packets::make(seq, wire::makeFlags(true, true, code), bytes));
}

void runServer(EnetServer& server) {
    const std::int64_t start = vxlisten::steadyNow();
    std::uint32_t seq = 0;
    for (std::uint32_t callback = 1; !stop; ++callback) {
        const std::uint32_t captured = callback * wire::RAW_BLOCK_FRAMES;
        sleepUntil(start + std::int64_t{captured} * vxlisten::SECOND / RATE);
        if (!compressed) {
            sendBlock(server, seq++);
        }
        if (compressed && captured >= (seq + 1) * wire::OPUS_FRAME_SAMPLES) {
            sleepUntil(vxlisten::steadyNow() + vxlisten::MILLISECOND);
            sendBlock(server, seq++);
        }
        server.service(1);
    }
}

void runReceiver(vxlisten::Playout& playout, std::uint16_t port) {
    vxlisten::Receiver receiver;
    if (!receiver.open() || !receiver.resolve("127.0.0.1", port) || !receiver.connect({})) {
        std::abort();
    }
    vxlisten::SequenceTracker tracker;
    vxlisten::StreamDecoder decoder;
    while (!stop) {
        const vxlisten::ReceiverEvent event = receiver.service(5);
        if (event.type == vxlisten::ReceiverEvent::Type::Packet) {
            const auto packet =
                vxlisten::parseAudioPacket(event.packet->data, event.packet->dataLength);
            if (packet) {
                decoder.decode(*packet, tracker.observe(*packet), [&playout](const auto& block) {
                    playout.queue().push(block, vxlisten::steadyNow());
                });
            }
        }
    }
}

/// Plays like a device and returns the delay of every click in milliseconds.
std::vector<double> runDevice(vxlisten::Playout& playout, double seconds) {
    std::vector<double> delays;
    std::vector<std::int16_t> output(PERIOD_FRAMES * 2);
    const std::int64_t start = vxlisten::steadyNow();
    const auto periods = static_cast<std::int64_t>(seconds * RATE / PERIOD_FRAMES);
    for (std::int64_t i = 1; i <= periods; ++i) {
        const std::int64_t due = start + i * 10 * vxlisten::MILLISECOND;
        sleepUntil(due);
        playout.render(output.data(), PERIOD_FRAMES, vxlisten::steadyNow());
        const auto heard = std::find_if(output.begin(), output.end(),
                                        [](std::int16_t value) { return value > CLICK / 2; });
        const std::int64_t sent = clickSent;
        if (heard != output.end() && sent != 0 && vxlisten::steadyNow() - start < SETTLING) {
            clickSent = 0;
        } else if (heard != output.end() && sent != 0) {
            const auto frame = static_cast<double>((heard - output.begin()) / 2);
            delays.push_back(static_cast<double>(vxlisten::steadyNow() - sent) / 1000.0 +
                             frame * 1000.0 / RATE);
            clickSent = 0;
        }
    }
    return delays;
}

/// Prints the row of one kind of sound. False when too little was heard.
bool measure(EnetServer& server, double seconds) {
    stop = false;
    clickSent = 0;
    vxlisten::Playout playout(RATE, {});
    std::thread serving(runServer, std::ref(server));
    std::thread receiving(runReceiver, std::ref(playout), server.port());
    vxlisten::raisePriority();  // As the program does.
    std::vector<double> delays =
        runDevice(playout, static_cast<double>(SETTLING / vxlisten::SECOND) + seconds);
    stop = true;
    serving.join();
    receiving.join();
    if (delays.empty()) {
        std::fputs("listen_delay: too few clicks were heard\n", stderr);
        return false;
    }
    std::sort(delays.begin(), delays.end());
    std::printf("%s,%.1f,%.1f,%.1f,%.1f,%zu,%llu\n", compressed ? "compressed" : "raw",
                delays[delays.size() / 2], delays.front(), delays.back(),
                delays[delays.size() * 99 / 100], delays.size(),
                static_cast<unsigned long long>(playout.figures().underruns.load()));
    std::fflush(stdout);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    EnetServer server;
    std::puts("sound,median_ms,least_ms,greatest_ms,p99_ms,clicks,underruns");
    bool good = measure(server, seconds);
    compressed = true;
    good = measure(server, seconds) && good;
    return good ? 0 : 1;
}
