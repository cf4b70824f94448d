// The least that streaming can cost: encodes the same frames, sends datagrams of the same sizes
// as often, receives as many acknowledgement datagrams and waits in poll as often as the server
// did in a measured session, and does nothing else.
//
// Usage: floor SECONDS CLIENTS RATE_CODE RELIABLE(0|1) RECEIVES_PER_CALLBACK POLLS_PER_CALLBACK
//        ENCODERS
// CLIENTS of one choice; ENCODERS more rate codes are encoded (for nobody) when above 1.
// Prints the processor time of the paced calls in milliseconds per second of sound.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <opus/opus.h>

#include "stream/wire_format.h"

namespace {

constexpr std::int64_t NS_PER_SECOND = 1000000000;
constexpr double SAMPLE_RATE = 48000;
constexpr std::size_t ENET_OVERHEAD = 8;  // Protocol and command headers around one packet.
constexpr std::size_t ACK_LENGTH = 12;
constexpr std::array<std::uint32_t, 4> ENCODED_RATE_CODES = {1, 2, 3, 5};

struct Options {
    double seconds;
    int clients;
    std::uint32_t rateCode;
    bool reliable;
    double receivesPerCall;
    double pollsPerCall;
    std::size_t encoders;
};

std::int64_t clockNs(clockid_t clock) {
    timespec now = {};
    ::clock_gettime(clock, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

int makeSocket() {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    constexpr int ROOM = 256 * 1024;
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &ROOM, sizeof ROOM);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &ROOM, sizeof ROOM);
    if (socket < 0 || ::bind(socket, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) {
        std::perror("floor: socket");
        std::exit(1);
    }
    return socket;
}

sockaddr_in addressOf(int socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

/// A client process: reads every datagram and acknowledges it when `acknowledge` is set.
[[noreturn]] void runPeer(int socket, bool acknowledge) {
    std::array<char, 4096> room{};
    for (;;) {
        sockaddr_in from = {};
        socklen_t length = sizeof from;
        ::recvfrom(socket, room.data(), room.size(), 0, reinterpret_cast<sockaddr*>(&from),
                   &length);
        if (acknowledge) {
            ::sendto(socket, room.data(), ACK_LENGTH, 0, reinterpret_cast<sockaddr*>(&from),
                     length);
        }
    }
}

class Floor {
  public:
    explicit Floor(const Options& chosen) : options(chosen), socket(makeSocket()) {
        for (int i = 0; i < options.clients; ++i) {
            const int peer = makeSocket();
            peers.push_back(addressOf(peer));
            children.push_back(::fork());
            if (children.back() == 0) {
                runPeer(peer, options.reliable);
            }
            ::close(peer);
        }
        for (const std::uint32_t code : encodedCodes()) {
            OpusEncoder* const encoder =
                opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr);
            opus_encoder_ctl(encoder, OPUS_SET_BITRATE(wire::bitRateOf(code)));
            opus_encoder_ctl(encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
            encoders.push_back(encoder);
        }
        makeSound();
    }

    ~Floor() {
        for (const pid_t child : children) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
        std::for_each(encoders.begin(), encoders.end(), opus_encoder_destroy);
    }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    /// Runs for the chosen time; returns processor nanoseconds per second of sound.
    double run() {
        const auto period =
            static_cast<std::int64_t>(wire::RAW_BLOCK_FRAMES * NS_PER_SECOND / SAMPLE_RATE);
        const auto calls = static_cast<std::int64_t>(options.seconds * 1e9) / period;
        const std::int64_t start = clockNs(CLOCK_MONOTONIC);
        std::int64_t processorTime = 0;
        for (std::int64_t call = 0; call < calls; ++call) {
            const std::int64_t due = start + call * period;
            const timespec at = {due / NS_PER_SECOND, due % NS_PER_SECOND};
            ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
            const std::int64_t before = clockNs(CLOCK_THREAD_CPUTIME_ID);
            onBlock();
            processorTime += clockNs(CLOCK_THREAD_CPUTIME_ID) - before;
        }
        return static_cast<double>(processorTime) / options.seconds;
    }

  private:
    [[nodiscard]] std::vector<std::uint32_t> encodedCodes() const {
        if (options.rateCode == 0 && options.encoders == 0) {
            return {};
        }
        if (options.encoders <= 1) {
            return {options.rateCode};
        }
        return {ENCODED_RATE_CODES.begin(),
                ENCODED_RATE_CODES.begin() + static_cast<std::ptrdiff_t>(options.encoders)};
    }

    void makeSound() {
        sound.resize(48000 * 2);
        unsigned noise = 1;
        for (std::size_t i = 0; i < sound.size() / 2; ++i) {
            noise = noise * 1664525U + 1013904223U;
            const double t = static_cast<double>(i) / SAMPLE_RATE;
            const double hiss = static_cast<double>(noise >> 20U) / 4.0 - 512;
            sound[2 * i] = static_cast<std::int16_t>(6000 * std::sin(2 * M_PI * 440 * t) + hiss);
            sound[2 * i + 1] =
                static_cast<std::int16_t>(6000 * std::sin(2 * M_PI * 554 * t) + hiss);
        }
    }

    void onBlock() {
        if (options.rateCode == 0) {
            sendToAll(wire::RAW_BUFFER_LENGTH + ENET_OVERHEAD);
        }
        gathered += wire::RAW_BLOCK_FRAMES;
        if (gathered >= wire::OPUS_FRAME_SAMPLES) {
            gathered -= wire::OPUS_FRAME_SAMPLES;
            const std::size_t length = encode();
            if (options.rateCode != 0) {
                sendToAll(length + wire::HEADER_LENGTH + ENET_OVERHEAD);
            }
        }
        waitAndReceive();
    }

    std::size_t encode() {
        const std::int16_t* const frames = &sound[position * 2];
        position = (position + wire::OPUS_FRAME_SAMPLES) % (sound.size() / 2);
        int length = 0;
        for (OpusEncoder* const encoder : encoders) {
            length = opus_encode(encoder, frames, wire::OPUS_FRAME_SAMPLES, packet.data(),
                                 static_cast<opus_int32>(wire::MAX_OPUS_BYTES));
        }
        return static_cast<std::size_t>(length);
    }

    void sendToAll(std::size_t length) {
        for (sockaddr_in& peer : peers) {
            iovec part = {packet.data(), length};
            msghdr message = {};
            message.msg_name = &peer;
            message.msg_namelen = sizeof peer;
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            ::sendmsg(socket, &message, MSG_NOSIGNAL);
        }
    }

    void waitAndReceive() {
        pollsDue += options.pollsPerCall;
        receivesDue += options.receivesPerCall;
        while (pollsDue >= 1) {
            pollfd ready = {socket, POLLIN, 0};
            ::poll(&ready, 1, 1);
            pollsDue -= 1;
            const double share = receivesDue / (pollsDue + 1);
            for (double done = 0; done < share && receivesDue >= 1; done += 1) {
                receiveOne();
                receivesDue -= 1;
            }
        }
    }

    void receiveOne() {
        std::array<char, 4096> room{};
        sockaddr_in from = {};
        iovec part = {room.data(), room.size()};
        msghdr message = {};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        ::recvmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    Options options;
    int socket;
    std::vector<sockaddr_in> peers;
    std::vector<pid_t> children;
    std::vector<OpusEncoder*> encoders;
    std::vector<std::int16_t> sound;
    std::array<unsigned char, 4096> packet{};
    std::size_t position = 0;
    std::size_t gathered = 0;
    double pollsDue = 0;
    double receivesDue = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 8) {
        std::fputs(
            "usage: floor SECONDS CLIENTS RATE_CODE RELIABLE RECEIVES_PER_CALLBACK "
            "POLLS_PER_CALLBACK ENCODERS\n",
            stderr);
        return 2;
    }
    const Options options{std::atof(argv[1]),
                          std::atoi(argv[2]),
                          static_cast<std::uint32_t>(std::atoi(argv[3])),
                          std::atoi(argv[4]) != 0,
                          std::atof(argv[5]),
                          std::atof(argv[6]),
                          static_cast<std::size_t>(std::atoi(argv[7]))};
    Floor floor(options);
    std::printf("%.4f\n", floor.run() / 1e6);
    return 0;
}
