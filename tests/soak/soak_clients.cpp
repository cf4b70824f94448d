// Ten clients that connect, change mode and rate, stall, vanish and return at random, and hold
// every packet against what was played. Usage: soak_clients PORT TABLE CALLBACKS SEED
// Ends when the server has made CALLBACKS more callbacks; status 1 when any packet was wrong or
// some client received nothing.

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <unistd.h>
#include <vector>

#include <enet/enet.h>

#include "stream/wire_format.h"
#include "tests/soak/packet_check.h"

namespace {

constexpr std::size_t CLIENTS = 10;
constexpr int LONGEST_WAIT_MS = 3000;
constexpr int MOST_ERRORS_SHOWN = 20;

using Clock = std::chrono::steady_clock;

struct HostDeleter {
    void operator()(ENetHost* host) const { enet_host_destroy(host); }
};

class SoakClient {
  public:
    SoakClient(std::uint16_t serverPort, const CaptureTable& table, unsigned seed)
        : port(serverPort), check(table), random(seed) {}

    /// Services the client's host and, when its time has come, does something else.
    void step() {
        if (Clock::now() >= nextChange) {
            change();
            nextChange = Clock::now() + std::chrono::milliseconds(pick(1, LONGEST_WAIT_MS));
        }
        if (!stalled && host != nullptr) {
            service();
        }
    }

    void leave() {
        if (host != nullptr && peer != nullptr && peer->state == ENET_PEER_STATE_CONNECTED) {
            enet_peer_disconnect_now(peer, 0);
        }
        forget();
    }

    long packets = 0;
    long errors = 0;
    long connections = 0;

  private:
    int pick(int least, int most) {
        return std::uniform_int_distribution<int>(least, most)(random);
    }

    void change() {
        stalled = false;
        if (host == nullptr) {
            connect();
            return;
        }
        const int choice = pick(0, 9);
        if (choice < 5) {
            requestData();
        } else if (choice < 7) {
            stalled = true;
        } else if (choice == 7) {
            leave();
        } else if (choice == 8) {
            forget();  // Vanishes without a word.
        }
    }

    void connect() {
        host.reset(enet_host_create(nullptr, 1, 2, 0, 0));
        ENetAddress address = {};
        enet_address_set_host_ip(&address, "127.0.0.1");
        address.port = port;
        peer = enet_host_connect(host.get(), &address, 2, wire::CONNECT_MULTI_CLIENT | 1U);
        check.restart();
    }

    void forget() {
        host.reset();
        peer = nullptr;
    }

    void requestData() {
        if (peer == nullptr || peer->state != ENET_PEER_STATE_CONNECTED) {
            return;
        }
        unsigned char message[wire::HEADER_LENGTH + 5] = {};
        wire::PacketHeader header;
        header.msgId = wire::MSGID_DATA;
        header.flags = wire::makeFlags(pick(0, 1) == 1, false,
                                       static_cast<std::uint32_t>(pick(0, 1) * pick(0, 7)));
        wire::writeHeader(message, header);
        enet_peer_send(peer, 0,
                       enet_packet_create(message, sizeof message, ENET_PACKET_FLAG_RELIABLE));
    }

    void service() {
        ENetEvent event;
        for (int handled = 0;
             handled < 200 && host != nullptr && enet_host_service(host.get(), &event, 0) > 0;
             ++handled) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                ++connections;
                requestData();
            } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
                forget();
            } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                take(*event.packet);
                enet_packet_destroy(event.packet);
            }
        }
    }

    void take(const ENetPacket& packet) {
        ++packets;
        const std::string problem = check.check(packet);
        if (!problem.empty() && ++errors <= MOST_ERRORS_SHOWN) {
            std::fprintf(stderr, "soak_clients: %s\n", problem.c_str());
        }
    }

    std::uint16_t port;
    PacketCheck check;
    std::mt19937 random;
    std::unique_ptr<ENetHost, HostDeleter> host;
    ENetPeer* peer = nullptr;
    bool stalled = false;
    Clock::time_point nextChange = Clock::now();
};

int report(const std::vector<std::unique_ptr<SoakClient>>& clients) {
    long errors = 0;
    bool allReceived = true;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        std::printf("client %zu: %ld connections, %ld packets, %ld errors\n", i,
                    clients[i]->connections, clients[i]->packets, clients[i]->errors);
        errors += clients[i]->errors;
        allReceived = allReceived && clients[i]->packets > 0;
    }
    return errors == 0 && allReceived ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const CaptureTable* const table = argc == 5 ? mapCaptureTable(argv[2], false) : nullptr;
    if (table == nullptr || enet_initialize() != 0) {
        std::fputs("usage: soak_clients PORT TABLE CALLBACKS SEED\n", stderr);
        return 2;
    }
    const auto seed = static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10));
    std::printf("seed %u\n", seed);
    std::vector<std::unique_ptr<SoakClient>> clients;
    for (unsigned i = 0; i < CLIENTS; ++i) {
        clients.push_back(std::make_unique<SoakClient>(
            static_cast<std::uint16_t>(std::atoi(argv[1])), *table, seed * 100 + i));
    }
    const std::uint64_t target = table->callbacks.load() + std::strtoull(argv[3], nullptr, 10);
    while (table->callbacks.load() < target) {
        for (const auto& client : clients) {
            client->step();
        }
        ::usleep(200);
    }
    for (const auto& client : clients) {
        client->leave();
    }
    return report(clients);
}
