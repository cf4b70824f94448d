#include "tests/support/test_client.h"

#include "tests/support/call_faults.h"

TestClient::TestClient(std::uint32_t connectData, std::uint16_t localPort, std::uint32_t mtu,
                       std::uint16_t port, const std::string& serverHost) {
    const UncountedCalls own;
    const ENetAddress local = {ENET_HOST_ANY, localPort};
    host = enet_host_create(&local, 1, 2, 0, 0);
    ENetAddress address = {};
    if (host == nullptr || enet_address_set_host(&address, serverHost.c_str()) != 0) {
        return;
    }
    // Two hosts made within a second at one place in memory would connect under one ID, and the
    // server takes that for one connect sent twice.
    static enet_uint32 seed = 0;
    host->randomSeed += ++seed * 0x9E3779B9U;
    if (mtu != 0) {
        host->mtu = mtu;
        host->peers[0].mtu = mtu;  // Offered in the connect; copied from the host at its creation.
    }
    address.port = port;
    peer = enet_host_connect(host, &address, 2, connectData);
}

TestClient::~TestClient() {
    if (host != nullptr) {
        enet_host_destroy(host);
    }
}

void TestClient::service(const std::function<void(const ENetEvent&)>& handle) const {
    const UncountedCalls own;
    ENetEvent event = {};
    while (enet_host_service(host, &event, 0) > 0) {
        handle(event);
        if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            enet_packet_destroy(event.packet);
        }
    }
}

void TestClient::service() {
    service([this](const ENetEvent& event) {
        if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            const ENetPacket& packet = *event.packet;
            packets.push_back({wire::readHeader(packet.data, packet.dataLength),
                               {packet.data, packet.data + packet.dataLength},
                               (packet.flags & ENET_PACKET_FLAG_RELIABLE) != 0});
            return;
        }
        connected = event.type == ENET_EVENT_TYPE_CONNECT;
        if (!connected) {
            disconnectData = event.data;
        }
    });
}

bool TestClient::send(const std::vector<unsigned char>& message, std::uint8_t channel,
                      enet_uint32 delivery) const {
    const UncountedCalls own;
    ENetPacket* const packet = enet_packet_create(message.data(), message.size(), delivery);
    const bool sent = enet_peer_send(peer, channel, packet) == 0;
    if (!sent) {
        enet_packet_destroy(packet);
    }
    enet_host_flush(host);
    return sent;
}

void TestClient::leave(std::uint32_t data) const {
    const UncountedCalls own;
    enet_peer_disconnect(peer, data);
    enet_host_flush(host);
}

std::uint16_t TestClient::port() const {
    ENetAddress address = {};  // The host's own record knows only a port that was asked for.
    enet_socket_get_address(host->socket, &address);
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
