// The minimum cost of streaming: encodes the same frames, sends datagrams of the same sizes,
// receives as many acknowledgement datagrams and waits in poll as the server does, in the same
// order and at the same pace.
//
// Usage: floor SECONDS [RATE_CODE:RELIABLE(0|1)]...
// One choice for each client; every rate code among them is encoded once. Each pass (one for every
// block, one more for every 480 frames) ends with receiving what there is and polling until 1 ms
// is over, as the service step does. Prints, per second of sound: milliseconds of processor time
// of the blocks, datagrams sent and received, polls.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <opus/opus.h>

#include "stream/wire_format.h"
#include "tests/support/test_sound.h"

namespace {

constexpr std::int64_t NS_PER_SECOND = 1000000000;
constexpr std::int64_t NS_PER_MILLISECOND = 1000000;
constexpr double SAMPLE_RATE = 48000;
// ENet's headers around one packet: 4 + 6 bytes for a reliable one, 2 + 8 for another.
constexpr std::size_t ENET_OVERHEAD = 10;
constexpr std::size_t ACK_LENGTH = 10;
constexpr double WARM_UP_SECONDS = 2;
constexpr std::size_t RATE_CODES = 8;

struct Choice {
    std::uint32_t rateCode;
    bool reliable;
};

struct Options {
    double seconds;
    std::vector<Choice> clients;
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

/// A client process: sleeps in poll, reads every datagram and acknowledges it when `acknowledge` is
/// set.
[[noreturn]] void runPeer(int socket, bool acknowledge) {
    std::array<char, 4096> room{};
    for (;;) {
        pollfd ready = {socket, POLLIN, 0};
        ::poll(&ready, 1, 100);
        sockaddr_in from = {};
        socklen_t length = sizeof from;
        while (::recvfrom(socket, room.data(), room.size(), MSG_DONTWAIT,
                          reinterpret_cast<sockaddr*>(&from), &length) >= 0) {
            if (acknowledge) {
                ::sendto(socket, room.data(), ACK_LENGTH, 0, reinterpret_cast<sockaddr*>(&from),
                         length);
            }
        }
    }
}

/// One receiver of the stream.
struct Peer {
    Choice choice;
    sockaddr_in address;
    pid_t process;
};

class Floor {
  public:
    explicit Floor(Options chosen) : options(std::move(chosen)), socket(makeSocket()) {
        for (const Choice& choice : options.clients) {
            const int receiver = makeSocket();
            acknowledged = acknowledged || choice.reliable;
            peers.push_back({choice, addressOf(receiver), ::fork()});
            if (peers.back().process == 0) {
                runPeer(receiver, choice.reliable);
            }
            ::close(receiver);
            if (choice.rateCode != 0 && encoders.at(choice.rateCode) == nullptr) {
                encoders.at(choice.rateCode) = makeEncoder(choice.rateCode);
            }
        }
        sound = testsound::make();  // Before the processes, which would copy its pages.
    }

    ~Floor() {
        for (const Peer& peer : peers) {
            ::kill(peer.process, SIGKILL);
            ::waitpid(peer.process, nullptr, 0);
        }
        for (OpusEncoder* const encoder : encoders) {
            if (encoder != nullptr) {
                opus_encoder_destroy(encoder);
            }
        }
    }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    /// Runs for the chosen time and prints what it took.
    void run() {
        start = clockNs(CLOCK_MONOTONIC);
        runBlocks(WARM_UP_SECONDS);
        sends = receives = polls = 0;
        const std::int64_t processorTime = runBlocks(options.seconds);
        std::printf("%.4f %.1f %.1f %.1f\n",
                    static_cast<double>(processorTime) / 1e6 / options.seconds,
                    sends / options.seconds, receives / options.seconds, polls / options.seconds);
    }

  private:
    /// Returns the processor time of the blocks, ns.
    std::int64_t runBlocks(double seconds) {
        constexpr auto PERIOD =
            static_cast<std::int64_t>(wire::RAW_BLOCK_FRAMES * NS_PER_SECOND / SAMPLE_RATE);
        const std::int64_t last = call + static_cast<std::int64_t>(seconds * 1e9) / PERIOD;
        std::int64_t processorTime = 0;
        for (; call < last; ++call) {
            const std::int64_t due = start + call * PERIOD;
            const timespec at = {due / NS_PER_SECOND, due % NS_PER_SECOND};
            ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
            const std::int64_t before = clockNs(CLOCK_THREAD_CPUTIME_ID);
            onBlock(static_cast<std::size_t>(call) % testsound::BLOCKS);
            processorTime += clockNs(CLOCK_THREAD_CPUTIME_ID) - before;
        }
        return processorTime;
    }

    static OpusEncoder* makeEncoder(std::uint32_t code) {
        OpusEncoder* const encoder = opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr);
        opus_encoder_ctl(encoder, OPUS_SET_BITRATE(wire::bitRateOf(code)));
        opus_encoder_ctl(encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
        return encoder;
    }

    void onBlock(std::size_t block) {
        std::int16_t* const frames = &sound[block * wire::RAW_BLOCK_FRAMES * 2];
        const std::int64_t entry = clockNs(CLOCK_MONOTONIC);
        std::memcpy(frames, &entry, sizeof entry);
        std::memcpy(&packets[0][wire::HEADER_LENGTH], frames,
                    wire::RAW_BLOCK_FRAMES * wire::BYTES_PER_FRAME);
        lengths[0] = wire::RAW_BUFFER_LENGTH;
        sendToAll(false);
        waitAndReceive();
        gather(frames);
    }

    /// Fills the group of 480 frames; encodes and sends it when it is full.
    void gather(const std::int16_t* frames) {
        const std::size_t fits =
            std::min(wire::OPUS_FRAME_SAMPLES - gathered, std::size_t{wire::RAW_BLOCK_FRAMES});
        std::copy_n(frames, 2 * fits, &group[2 * gathered]);
        gathered += fits;
        if (gathered < wire::OPUS_FRAME_SAMPLES) {
            return;
        }
        for (std::size_t code = 1; code < RATE_CODES; ++code) {
            if (encoders[code] != nullptr) {
                const int length =
                    opus_encode(encoders[code], group.data(), wire::OPUS_FRAME_SAMPLES,
                                &packets[code][wire::HEADER_LENGTH],
                                static_cast<opus_int32>(wire::MAX_OPUS_BYTES));
                lengths[code] = wire::HEADER_LENGTH + static_cast<std::size_t>(length);
            }
        }
        gathered = wire::RAW_BLOCK_FRAMES - fits;
        std::copy_n(frames + 2 * fits, 2 * gathered, group.data());
        sendToAll(true);
        waitAndReceive();
    }

    void sendToAll(bool compressed) {
        for (Peer& peer : peers) {
            const std::uint32_t code = peer.choice.rateCode;
            if ((code != 0) != compressed) {
                continue;
            }
            iovec part = {packets[code].data(), lengths[code] + ENET_OVERHEAD};
            msghdr message = {};
            message.msg_name = &peer.address;
            message.msg_namelen = sizeof peer.address;
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            ::sendmsg(socket, &message, MSG_NOSIGNAL);
            ++sends;
        }
    }

    /// As the service step: receives until the clock, in whole milliseconds, has advanced by one.
    void waitAndReceive() {
        const std::int64_t end = clockNs(CLOCK_MONOTONIC) / NS_PER_MILLISECOND + 1;
        if (acknowledged) {
            receiveAll();
        }
        do {
            pollfd ready = {socket, POLLIN, 0};
            ++polls;
            if (::poll(&ready, 1, 1) > 0) {
                receiveAll();
            }
        } while (clockNs(CLOCK_MONOTONIC) / NS_PER_MILLISECOND < end);
    }

    void receiveAll() {
        sockaddr_in from = {};
        iovec part = {room.data(), room.size()};
        msghdr message = {};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        while (::recvmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
            ++receives;
        }
    }

    Options options;
    int socket;
    std::vector<std::int16_t> sound;
    std::vector<Peer> peers;
    std::array<OpusEncoder*, RATE_CODES> encoders{};  ///< By rate code.
    std::array<std::array<unsigned char, 4096>, RATE_CODES> packets{};
    std::array<std::size_t, RATE_CODES> lengths{};
    std::array<std::int16_t, 2 * wire::OPUS_FRAME_SAMPLES> group{};
    std::size_t gathered = 0;
    std::array<char, 4096> room{};  ///< For received datagrams.
    std::int64_t start = 0;         ///< Of the first block, CLOCK_MONOTONIC, ns.
    std::int64_t call = 0;          ///< Number of the next block.
    bool acknowledged = false;      ///< Some client acknowledges.
    double sends = 0;
    double receives = 0;
    double polls = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: floor SECONDS [RATE_CODE:RELIABLE]...\n", stderr);
        return 2;
    }
    Options options{std::atof(argv[1]), {}};
    for (int i = 2; i < argc; ++i) {
        unsigned code = 0;
        int reliable = 0;
        if (std::sscanf(argv[i], "%u:%d", &code, &reliable) != 2 || code >= RATE_CODES) {
            std::fprintf(stderr, "floor: what is %s?\n", argv[i]);
            return 2;
        }
        options.clients.push_back({code, reliable != 0});
    }
    Floor floor(std::move(options));
    floor.run();
    return 0;
}
