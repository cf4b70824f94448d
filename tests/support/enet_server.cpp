#include "tests/support/enet_server.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "stream/wire_format.h"

EnetServer::EnetServer(std::uint16_t port, int period, std::function<void(EnetServer&)> step) {
    enet_initialize();
    ENetAddress address = {};
    enet_address_set_host(&address, "127.0.0.1");
    address.port = port;
    host_ = enet_host_create(&address, 16, 2, 0, 0);
    if (host_ == nullptr) {
        std::perror("the server's port");
        std::exit(1);
    }
    if (period > 0) {
        thread_ = std::thread([this, period, step = std::move(step)] {
            while (!stop_) {
                service();
                if (step) {
                    step(*this);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(period));
            }
        });
    }
}

EnetServer::~EnetServer() {
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    enet_host_destroy(host_);
    enet_deinitialize();
}

void EnetServer::service(int milliseconds) {
    const std::lock_guard<std::mutex> guard(lock_);
    ENetEvent event = {};
    for (; enet_host_service(host_, &event, static_cast<enet_uint32>(milliseconds)) > 0;
         milliseconds = 0) {
        handle(event);
    }
}

void EnetServer::send(const std::vector<unsigned char>& packet, enet_uint32 delivery) {
    const std::lock_guard<std::mutex> guard(lock_);
    enet_host_broadcast(host_, 0, enet_packet_create(packet.data(), packet.size(), delivery));
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

std::string EnetServer::request() {
    const std::lock_guard<std::mutex> guard(lock_);
    return request_;
}

int EnetServer::connections() {
    const std::lock_guard<std::mutex> guard(lock_);
    return connections_;
}

void EnetServer::dropAll(std::uint32_t data) {
    const std::lock_guard<std::mutex> guard(lock_);
    std::for_each(host_->peers, host_->peers + host_->peerCount, [data](ENetPeer& peer) {
        if (peer.state == ENET_PEER_STATE_CONNECTED) {
            enet_peer_disconnect(&peer, data);
        }
    });
    enet_host_flush(host_);
}

void EnetServer::handle(const ENetEvent& event) {
    if (event.type == ENET_EVENT_TYPE_CONNECT) {
        ++connections_;
    } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
        clients_.erase(event.peer);
    } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
        const ENetPacket& packet = *event.packet;
        clients_[event.peer] = wire::readHeader(packet.data, packet.dataLength).rateCode();
        request_.assign(reinterpret_cast<const char*>(packet.data), packet.dataLength);
        enet_packet_destroy(event.packet);
    }
}
