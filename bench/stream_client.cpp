// A client for measurements: connects, asks for data, counts packets until its standard input is
// closed. Usage: stream_client PORT RATE_CODE RELIABLE(0|1) [TABLE OUTPUT]
//
// With TABLE (the paced capture's) it writes one line per audio packet to OUTPUT when it ends:
// sequence number, nanoseconds from the entry of the callback that sent it to its arrival here.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>
#include <vector>

#include <enet/enet.h>

#include "bench/capture_table.h"
#include "stream/wire_format.h"

namespace {

constexpr int CONNECT_PATIENCE_MS = 10000;

struct Options {
    enet_uint16 port;
    std::uint32_t rateCode;
    bool reliable;
};

struct Arrival {
    std::uint32_t seq;
    std::int64_t delayNs;
};

/// Takes the time of arrival of audio packets; does nothing without a table.
class DelayMeter {
  public:
    DelayMeter(const CaptureTable* captureTable, std::uint32_t code)
        : table(captureTable), rateCode(code) {
        arrivals.reserve(captureTable != nullptr ? ROOM : 0);
    }

    void take(const ENetPacket& packet) {
        if (table == nullptr || packet.dataLength < wire::HEADER_LENGTH + sizeof(std::int64_t)) {
            return;
        }
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const std::int64_t arrival =
            static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
        const wire::PacketHeader header = wire::readHeader(packet.data, packet.dataLength);
        arrivals.push_back({header.seq, arrival - entryOf(header, packet)});
    }

    void write(const char* path) const {
        std::FILE* const file = std::fopen(path, "w");
        for (const Arrival& each : arrivals) {
            std::fprintf(file, "%u %lld\n", each.seq, static_cast<long long>(each.delayNs));
        }
        std::fclose(file);
    }

  private:
    static constexpr std::size_t ROOM = 1000000;

    /// Raw sound carries the time itself; for compressed sound the table knows it.
    [[nodiscard]] std::int64_t entryOf(const wire::PacketHeader& header,
                                       const ENetPacket& packet) const {
        if (rateCode == wire::RATE_CODE_RAW) {
            std::int64_t entry = 0;
            std::memcpy(&entry, packet.data + wire::HEADER_LENGTH, sizeof entry);
            return entry;
        }
        return table->compressedEntry[header.seq % CaptureTable::REMEMBERED].load();
    }

    const CaptureTable* table;
    std::uint32_t rateCode;
    std::vector<Arrival> arrivals;
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

long countPackets(ENetHost& host, const Options& options, DelayMeter& meter) {
    long packets = 0;
    do {
        ENetEvent event;
        while (enet_host_service(&host, &event, 0) > 0) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                requestData(event.peer, options);
            } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                ++packets;
                meter.take(*event.packet);
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
    if ((argc != 4 && argc != 6) || enet_initialize() != 0) {
        std::fputs("usage: stream_client PORT RATE_CODE RELIABLE [TABLE OUTPUT]\n", stderr);
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
    DelayMeter meter(argc == 6 ? mapCaptureTable(argv[4], false) : nullptr, options.rateCode);
    const long packets = countPackets(*host, options, meter);
    if (argc == 6) {
        meter.write(argv[5]);
    }
    enet_peer_disconnect_now(peer, 0);
    enet_host_destroy(host);
    std::fprintf(stderr, "stream_client: %ld packets\n", packets);
    return packets > 0 ? 0 : 1;
}
