// A client for measurements: connects, asks for data, counts packets until its standard input is
// closed. Usage: stream_client PORT RATE_CODE RELIABLE(0|1)
// Connects from the loopback address to the loopback address.

#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>

#include <enet/enet.h>

#include "stream/wire_format.h"

namespace {

constexpr int CONNECT_PATIENCE_MS = 10000;

struct Options {
    enet_uint16 port;
    std::uint32_t rateCode;
    bool reliable;
};

void requestData(ENetPeer* peer, const Options& options) {
    unsigned char message[wire::HEADER_LENGTH + sizeof "bench"] = {};
    wire::PacketHeader header;
    header.msgId = wire::MSGID_DATA;
    header.flags = wire::makeFlags(options.reliable, false, options.rateCode);
    wire::writeHeader(message, header);
    std::snprintf(reinterpret_cast<char*>(message) + wire::HEADER_LENGTH, sizeof "bench", "bench");
    enet_peer_send(peer, 0, enet_packet_create(message, sizeof message, ENET_PACKET_FLAG_RELIABLE));
}

/// Waits for the socket or for the end of standard input; false at the latter.
bool waitForTraffic(const ENetHost& host) {
    pollfd sources[2] = {{host.socket, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    ::poll(sources, 2, 100);
    return (sources[1].revents & (POLLIN | POLLHUP)) == 0;
}

long countPackets(ENetHost& host, const Options& options) {
    long packets = 0;
    do {
        ENetEvent event;
        while (enet_host_service(&host, &event, 0) > 0) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                requestData(event.peer, options);
            } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                ++packets;
                enet_packet_destroy(event.packet);
            } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
                return packets;
            }
        }
    } while (waitForTraffic(host));
    return packets;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || enet_initialize() != 0) {
        std::fputs("usage: stream_client PORT RATE_CODE RELIABLE\n", stderr);
        return 2;
    }
    const Options options{static_cast<enet_uint16>(std::atoi(argv[1])),
                          static_cast<std::uint32_t>(std::atoi(argv[2])), std::atoi(argv[3]) != 0};
    ENetHost* const host = enet_host_create(nullptr, 1, 2, 0, 0);
    ENetAddress address = {};
    enet_address_set_host_ip(&address, "127.0.0.1");
    address.port = options.port;
    ENetPeer* const peer =
        host == nullptr ? nullptr
                        : enet_host_connect(host, &address, 2, wire::CONNECT_MULTI_CLIENT | 1U);
    if (peer == nullptr) {
        std::fputs("stream_client: no host\n", stderr);
        return 1;
    }
    enet_peer_timeout(peer, 0, CONNECT_PATIENCE_MS, CONNECT_PATIENCE_MS);
    const long packets = countPackets(*host, options);
    enet_peer_disconnect_now(peer, 0);
    enet_host_destroy(host);
    std::fprintf(stderr, "stream_client: %ld packets\n", packets);
    return packets > 0 ? 0 : 1;
}
