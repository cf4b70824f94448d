#include "tests/support/audio_client.h"

#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <unistd.h>

#include "stream/wire_format.h"
#include "tests/support/test_client.h"

namespace {

constexpr int CONNECT_TIMEOUT_MS = 10000;

std::int64_t nowNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

/// The MTU that the environment names; 0: ENet's own, which is not the same in all its releases.
std::uint32_t chosenMtu() {
    const char* const wanted = std::getenv("BENCH_CLIENT_MTU");
    return wanted != nullptr ? static_cast<std::uint32_t>(std::atoi(wanted)) : 0;
}

/// Waits for the socket or for the end of standard input; false at the latter.
bool waitForTraffic(const ENetHost& host) {
    pollfd sources[2] = {{host.socket, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    ::poll(sources, 2, 100);
    return (sources[1].revents & (POLLIN | POLLHUP)) == 0;
}

}  // namespace

long receiveAudio(const AudioChoice& choice,
                  const std::function<void(const ENetPacket&, std::int64_t)>& take) {
    const TestClient client(wire::CONNECT_MULTI_CLIENT | 1U, 0, chosenMtu(), choice.port);
    if (!client.ok()) {
        return -1;
    }
    enet_peer_timeout(client.peer, 0, CONNECT_TIMEOUT_MS, CONNECT_TIMEOUT_MS);
    long packets = 0;
    bool connected = true;
    do {
        client.service([&](const ENetEvent& event) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                client.send(
                    dataRequest(wire::makeFlags(choice.reliable, false, choice.rateCode), "bench"));
            } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                ++packets;
                take(*event.packet, nowNs());
            } else {
                connected = false;
            }
        });
    } while (connected && waitForTraffic(*client.host));
    enet_peer_disconnect_now(client.peer, 0);
    return packets;
}
