#include "tests/support/test_client.h"

#include <gtest/gtest.h>

// The client's own calls are neither counted nor failed.
extern "C" {
int __real_enet_host_service(ENetHost*, ENetEvent*, enet_uint32);
void __real_enet_host_flush(ENetHost*);
ENetPacket* __real_enet_packet_create(const void*, size_t, enet_uint32);
void __real_enet_packet_destroy(ENetPacket*);
int __real_enet_peer_send(ENetPeer*, enet_uint8, ENetPacket*);
void __real_enet_peer_disconnect(ENetPeer*, enet_uint32);
}

TestClient::TestClient(std::uint32_t connectData, std::uint16_t localPort, std::uint32_t mtu,
                       std::uint16_t port) {
    ENetAddress local = {};
    local.host = ENET_HOST_ANY;
    local.port = localPort;
    host = enet_host_create(&local, 1, 2, 0, 0);
    EXPECT_NE(host, nullptr) << "no local port " << localPort;
    // Two hosts made within a second at one place in memory would connect under one ID, and the
    // server takes that for one connect sent twice.
    static enet_uint32 seed = 0;
    host->randomSeed += ++seed * 0x9E3779B9U;
    if (mtu != 0) {
        host->mtu = mtu;
        host->peers[0].mtu = mtu;  // What the connect offers: taken from the host when it was made.
    }
    ENetAddress address = {};
    enet_address_set_host(&address, "127.0.0.1");
    address.port = port;
    peer = enet_host_connect(host, &address, 2, connectData);
    EXPECT_NE(peer, nullptr);
}

TestClient::~TestClient() {
    enet_host_destroy(host);
}

void TestClient::service() {
    ENetEvent event = {};
    while (__real_enet_host_service(host, &event, 0) > 0) {
        if (event.type == ENET_EVENT_TYPE_CONNECT) {
            connected = true;
        } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
            connected = false;
            disconnectData = event.data;
        } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            const ENetPacket& packet = *event.packet;
            packets.push_back({wire::readHeader(packet.data, packet.dataLength),
                               {packet.data, packet.data + packet.dataLength},
                               (packet.flags & ENET_PACKET_FLAG_RELIABLE) != 0});
            __real_enet_packet_destroy(event.packet);
        }
    }
}

void TestClient::send(const std::vector<unsigned char>& message, std::uint8_t channel) {
    ENetPacket* const packet =
        __real_enet_packet_create(message.data(), message.size(), ENET_PACKET_FLAG_RELIABLE);
    EXPECT_EQ(__real_enet_peer_send(peer, channel, packet), 0);
    __real_enet_host_flush(host);
}

void TestClient::leave() {
    __real_enet_peer_disconnect(peer, 0);
    __real_enet_host_flush(host);
}

std::uint16_t TestClient::port() const {
    ENetAddress address = {};
    EXPECT_EQ(enet_socket_get_address(host->socket, &address), 0);
    return address.port;
}

std::vector<unsigned char> controlMessage(std::uint32_t id, std::uint32_t flags) {
    std::vector<unsigned char> message(wire::HEADER_LENGTH, 0);
    wire::writeU32(message.data(), id);
    wire::writeU32(message.data() + 4, 0xDEADBEEF);  // Not read.
    wire::writeU32(message.data() + 8, flags);
    wire::writeU32(message.data() + 12, 0xDEADBEEF);
    return message;
}

std::vector<unsigned char> dataRequest(std::uint32_t flags, const std::string& name,
                                       bool terminated) {
    std::vector<unsigned char> message = controlMessage(wire::MSGID_DATA, flags);
    message.insert(message.end(), name.begin(), name.end());
    if (terminated) {
        message.push_back(0);
    }
    return message;
}
