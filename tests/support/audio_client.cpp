#include "tests/support/audio_client.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <unistd.h>

#include "stream/wire_format.h"

namespace {

constexpr int CONNECT_PATIENCE_MS = 10000;

std::int64_t nowNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void requestData(ENetPeer* peer, const AudioChoice& choice) {
    unsigned char message[wire::HEADER_LENGTH + sizeof "bench"] = {};
    wire::PacketHeader header;
    header.msgId = wire::MSGID_DATA;
    header.flags = wire::makeFlags(choice.reliable, false, choice.rateCode);
    wire::writeHeader(message, header);
    std::snprintf(reinterpret_cast<char*>(message) + wire::HEADER_LENGTH, sizeof "bench", "bench");
    enet_peer_send(peer, 0, enet_packet_create(message, sizeof message, ENET_PACKET_FLAG_RELIABLE));
}

/// Lets the one peer of a new host ask for the MTU that the environment names; without it, for
/// ENet's own, which is not the same in all its releases.
void chooseMtu(ENetHost& host) {
    const char* const wanted = std::getenv("BENCH_CLIENT_MTU");
    if (wanted != nullptr) {
        host.mtu = static_cast<enet_uint32>(std::atoi(wanted));
        host.peers[0].mtu = host.mtu;
    }
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
    ENetHost* const host = enet_host_create(nullptr, 1, 2, 0, 0);
    if (host != nullptr) {
        chooseMtu(*host);
    }
    ENetAddress address = {};
    enet_address_set_host_ip(&address, "127.0.0.1");
    address.port = choice.port;
    ENetPeer* const peer =
        host == nullptr ? nullptr
                        : enet_host_connect(host, &address, 2, wire::CONNECT_MULTI_CLIENT | 1U);
    if (peer == nullptr) {
        return -1;
    }
    enet_peer_timeout(peer, 0, CONNECT_PATIENCE_MS, CONNECT_PATIENCE_MS);
    long packets = 0;
    bool connected = true;
    do {
        ENetEvent event;
        while (connected && enet_host_service(host, &event, 0) > 0) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                requestData(event.peer, choice);
            } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                ++packets;
                take(*event.packet, nowNs());
                enet_packet_destroy(event.packet);
            } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
                connected = false;
            }
        }
    } while (connected && waitForTraffic(*host));
    enet_peer_disconnect_now(peer, 0);
    enet_host_destroy(host);
    return packets;
}
