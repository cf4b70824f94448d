// Load for velantrix-web and the programs that it is compared with. Each packet contains the time
// when it was sent, so that listeners know its delay.
//
//   web_load source PORT                        a server that sends Opus packets of 128 kbit/s
//   web_load floor PORT live|ogg                writes the same bytes to whoever connects
//   web_load listen PORT PATH COUNT SECONDS     listeners; prints figures as JSON
//
// The floor and the source run until they are killed. All is on 127.0.0.1.

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/support/enet_server.h"
#include "tests/support/packets.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t PAYLOAD = 320;  ///< Bytes of an Opus packet of 10 ms at 128 kbit/s.
constexpr std::size_t STAMP_AT = 1;   ///< After the byte with the kind of packet.
constexpr std::chrono::milliseconds PERIOD{10};
constexpr int PACKETS_A_PAGE = 10;
constexpr char STEREO_10_MS = '\xF4';

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

std::string makePayload() {
    std::string payload(PAYLOAD, '\x55');
    payload[0] = STEREO_10_MS;
    const std::int64_t time = now();
    std::memcpy(&payload[STAMP_AT], &time, sizeof time);
    return payload;
}

std::int64_t stampOf(const char* payload) {
    std::int64_t time = 0;
    std::memcpy(&time, payload + STAMP_AT, sizeof time);
    return time;
}

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_in loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

[[noreturn]] void runSource(int port) {
    EnetServer server(static_cast<std::uint16_t>(port));
    auto next = Clock::now();
    for (std::uint32_t seq = 0;; ++seq) {
        next += PERIOD;
        std::this_thread::sleep_until(next);
        const std::string payload = makePayload();
        server.send(
            packets::make(seq, wire::makeFlags(true, true, 2), {payload.begin(), payload.end()}));
        server.service();
    }
}

std::string makePage(const std::vector<std::string>& packets) {
    std::string page("OggS", 4);
    page.resize(26, '\0');
    page.push_back(static_cast<char>(2 * packets.size()));
    for (const std::string& packet : packets) {
        page.push_back('\xFF');
        page.push_back(static_cast<char>(packet.size() - 255));
    }
    for (const std::string& packet : packets) {
        page += packet;
    }
    return page;
}

/// The bytes that the floor sends now; empty for none.
std::string makeFloorBytes(bool ogg, std::vector<std::string>& waiting) {
    const std::string payload = makePayload();
    if (!ogg) {
        const std::size_t length = payload.size() + 8;
        return std::string("\x82\x7E", 2) + static_cast<char>(length >> 8) +
               static_cast<char>(length & 0xFF) + std::string(8, '\0') + payload;
    }
    waiting.push_back(payload);
    if (waiting.size() < PACKETS_A_PAGE) {
        return {};
    }
    const std::string page = makePage(waiting);
    waiting.clear();
    return page;
}

[[noreturn]] void runFloor(int port, bool ogg) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port);
    if (bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(server, 1024) != 0) {
        fail("floor");
    }
    const std::string greeting = "HTTP/1.1 200 OK\r\n\r\n";
    std::vector<int> listeners;
    std::vector<std::string> waiting;
    auto next = Clock::now();
    for (;;) {
        next += PERIOD;
        std::this_thread::sleep_until(next);
        for (int one = accept(server, nullptr, nullptr); one >= 0;
             one = accept(server, nullptr, nullptr)) {
            setsockopt(one, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            send(one, greeting.data(), greeting.size(), MSG_NOSIGNAL);
            listeners.push_back(one);
        }
        const std::string bytes = makeFloorBytes(ogg, waiting);
        for (const int listener : listeners) {
            if (!bytes.empty()) {
                send(listener, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            }
        }
    }
}

/// When a packet or page reached its listeners.
struct Arrival {
    int count = 0;
    std::int64_t last = 0;
};
std::map<std::int64_t, Arrival> arrivals;  // By the time of sending.

class Listener {
  public:
    Listener(int port, const std::string& path) : handle(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in address = loopback(port);
        if (connect(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            fail("connect");
        }
        live_ = path.rfind("/live", 0) == 0;
        const std::string upgrade =
            "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Key: AQIDBAUGBwgJCgsMDQ4PEA==\r\n";
        const std::string request = "GET " + path + (live_ ? " HTTP/1.1" : " HTTP/1.0") +
                                    "\r\nHost: localhost\r\n" + (live_ ? upgrade : "") + "\r\n";
        send(handle, request.data(), request.size(), MSG_NOSIGNAL);
        fcntl(handle, F_SETFL, O_NONBLOCK);
    }

    /// Reads what has arrived.
    void take() {
        char room[65536];
        for (ssize_t length = recv(handle, room, sizeof room, 0); length > 0;
             length = recv(handle, room, sizeof room, 0)) {
            bytes_.append(room, static_cast<std::size_t>(length));
        }
        if (!begun_) {
            const std::size_t end = bytes_.find("\r\n\r\n");
            if (end == std::string::npos) {
                return;
            }
            begun_ = true;
            bytes_.erase(0, end + 4);
        }
        std::size_t used = 0;
        while (const std::size_t length = live_ ? takeFrame(used) : takePage(used)) {
            used += length;
        }
        bytes_.erase(0, used);
    }

    int handle;

  private:
    static void note(const char* payload) {
        Arrival& arrival = arrivals[stampOf(payload)];
        ++arrival.count;
        arrival.last = now();
    }

    /// Length of the whole frame at `at`, 0 while it is not whole.
    [[nodiscard]] std::size_t takeFrame(std::size_t at) const {
        const auto byte = [this, at](std::size_t i) {
            return static_cast<std::size_t>(static_cast<unsigned char>(bytes_[at + i]));
        };
        if (bytes_.size() - at < 4) {
            return 0;
        }
        const bool longer = byte(1) == 126;
        const std::size_t length = longer ? 4 + 256 * byte(2) + byte(3) : 2 + byte(1);
        if (bytes_.size() - at < length) {
            return 0;
        }
        if (byte(0) == 0x82) {
            note(&bytes_[at + (longer ? 12 : 10)]);
        }
        return length;
    }

    /// The same for a page, whose last packet counts.
    [[nodiscard]] std::size_t takePage(std::size_t at) const {
        if (bytes_.size() - at < 27 || bytes_.size() - at < 27U + segmentCount(at)) {
            return 0;
        }
        std::size_t length = 27 + segmentCount(at);
        std::size_t packet = 0;
        for (std::size_t i = 0; i < segmentCount(at); ++i) {
            const auto segment = static_cast<unsigned char>(bytes_[at + 27 + i]);
            length += segment;
            packet = segment == 255 ? packet + 255 : packet + segment;
            if (segment < 255 && i + 1 < segmentCount(at)) {
                packet = 0;
            }
        }
        if (bytes_.size() - at < length) {
            return 0;
        }
        if (packet == PAYLOAD) {
            note(&bytes_[at + length - packet]);
        }
        return length;
    }

    [[nodiscard]] std::size_t segmentCount(std::size_t at) const {
        return static_cast<unsigned char>(bytes_[at + 26]);
    }

    bool live_ = false;
    bool begun_ = false;
    std::string bytes_;
};

void report(int count) {
    std::vector<double> delays;
    int incomplete = 0;
    for (const auto& [sent, arrival] : arrivals) {
        if (arrival.count == count) {
            delays.push_back(static_cast<double>(arrival.last - sent) / 1e6);
        } else {
            ++incomplete;
        }
    }
    std::sort(delays.begin(), delays.end());
    const auto part = [&delays](double share) {
        return delays.empty() ? -1.0
                              : delays[static_cast<std::size_t>(
                                    share * static_cast<double>(delays.size() - 1))];
    };
    std::printf(
        "{\"packets\": %zu, \"incomplete\": %d, \"median_ms\": %.2f, \"p99_ms\": %.2f, "
        "\"max_ms\": %.2f}\n",
        delays.size(), incomplete, part(0.5), part(0.99), part(1.0));
}

/// Counts packets sent later than two seconds after the last connection.
void runListeners(int port, const std::string& path, int count, int seconds) {
    std::vector<Listener> listeners;
    const int events = epoll_create1(0);
    listeners.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        listeners.emplace_back(port, path);
        epoll_event interest = {};
        interest.events = EPOLLIN;
        interest.data.ptr = &listeners.back();
        epoll_ctl(events, EPOLL_CTL_ADD, listeners.back().handle, &interest);
    }
    constexpr std::int64_t SECOND = 1000000000;
    const std::int64_t start = now() + 2 * SECOND;
    const std::int64_t end = start + seconds * SECOND;
    while (now() < end + SECOND / 2) {
        epoll_event found[256];
        const int ready = epoll_wait(events, found, 256, 100);
        for (int i = 0; i < ready; ++i) {
            static_cast<Listener*>(found[i].data.ptr)->take();
        }
    }
    arrivals.erase(arrivals.begin(), arrivals.lower_bound(start));
    arrivals.erase(arrivals.lower_bound(end), arrivals.end());
    report(count);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (words.size() == 2 && words[0] == "source") {
        runSource(std::atoi(words[1].c_str()));
    } else if (words.size() == 3 && words[0] == "floor") {
        runFloor(std::atoi(words[1].c_str()), words[2] == "ogg");
    } else if (words.size() == 5 && words[0] == "listen") {
        runListeners(std::atoi(words[1].c_str()), words[2], std::atoi(words[3].c_str()),
                     std::atoi(words[4].c_str()));
        return 0;
    }
    std::fputs("see the beginning of bench/web/web_load.cpp\n", stderr);
    return 2;
}
