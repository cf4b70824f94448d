#include "tests/unit/web/enet_server.h"

#include <algorithm>
#include <chrono>

EnetServer::EnetServer(std::uint16_t port) {
    enet_initialize();
    ENetAddress address = {};
    enet_address_set_host(&address, "127.0.0.1");
    address.port = port;
    host_ = enet_host_create(&address, 16, 2, 0, 0);
    thread_ = std::thread([this] { run(); });
}

EnetServer::~EnetServer() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        stop_ = true;
    }
    thread_.join();
    enet_host_destroy(host_);
    enet_deinitialize();
}

void EnetServer::send(const packets::Bytes& packet) {
    const std::lock_guard<std::mutex> guard(lock_);
    const std::uint32_t code = wire::readHeader(packet.data(), packet.size()).rateCode();
    for (const auto& [peer, asked] : clients_) {
        if (asked == code) {
            enet_peer_send(
                peer, 0,
                enet_packet_create(packet.data(), packet.size(), ENET_PACKET_FLAG_RELIABLE));
        }
    }
    enet_host_flush(host_);
}

std::vector<std::uint32_t> EnetServer::asked() {
    const std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::uint32_t> codes;
    for (const auto& [peer, code] : clients_) {
        codes.push_back(code);
    }
    std::sort(codes.begin(), codes.end());
    return codes;
}

int EnetServer::connections() {
    const std::lock_guard<std::mutex> guard(lock_);
    return connections_;
}

void EnetServer::dropAll(std::uint32_t data) {
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto& [peer, code] : clients_) {
        enet_peer_disconnect(peer, data);
    }
    enet_host_flush(host_);
}

void EnetServer::run() {
    for (;;) {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            ENetEvent event = {};
            while (enet_host_service(host_, &event, 0) > 0) {
                handle(event);
            }
            if (stop_) {
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void EnetServer::handle(const ENetEvent& event) {
    if (event.type == ENET_EVENT_TYPE_CONNECT) {
        ++connections_;
    } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
        clients_.erase(event.peer);
    } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
        const ENetPacket& packet = *event.packet;
        clients_[event.peer] = wire::readHeader(packet.data, packet.dataLength).rateCode();
        enet_packet_destroy(event.packet);
    }
}
