#include "tests/support/probe_client.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr std::uint8_t COMMAND_MASK = 0x0F;
constexpr enet_uint16 SENT_TIME_FLAG = 0x8000;

// What the datagrams of all clients showed; the intercept callback has no place for its owner.
std::uint64_t fragments = 0;
std::uint64_t largestDatagram = 0;

template <class T>
T readAt(const unsigned char* data) {
    T value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

std::size_t payloadOf(std::uint8_t command, const unsigned char* data) {
    switch (command) {
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
            return ENET_NET_TO_HOST_16(readAt<ENetProtocolSendReliable>(data).dataLength);
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
            return ENET_NET_TO_HOST_16(readAt<ENetProtocolSendUnreliable>(data).dataLength);
        case ENET_PROTOCOL_COMMAND_SEND_UNSEQUENCED:
            return ENET_NET_TO_HOST_16(readAt<ENetProtocolSendUnsequenced>(data).dataLength);
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
            ++fragments;
            return ENET_NET_TO_HOST_16(readAt<ENetProtocolSendFragment>(data).dataLength);
        default:
            return 0;
    }
}

/// Walks the commands of one datagram before ENet sees it.
int ENET_CALLBACK countFragments(ENetHost* host, ENetEvent* /*event*/) {
    const unsigned char* const data = host->receivedData;
    const std::size_t length = host->receivedDataLength;
    largestDatagram = std::max<std::uint64_t>(largestDatagram, length);
    if (length < sizeof(enet_uint16)) {
        return 0;
    }
    const bool timed =
        (ENET_NET_TO_HOST_16(readAt<ENetProtocolHeader>(data).peerID) & SENT_TIME_FLAG) != 0;
    std::size_t at = timed ? sizeof(ENetProtocolHeader) : sizeof(enet_uint16);
    while (at < length) {
        const std::uint8_t command = data[at] & COMMAND_MASK;
        const std::size_t size = enet_protocol_command_size(command);
        if (size == 0 || at + size > length) {
            break;
        }
        at += size + payloadOf(command, data + at);
    }
    return 0;
}

}  // namespace

ProbeClient::ProbeClient(std::string clientName, const std::string& hostName, std::uint16_t port,
                         std::uint32_t connectData, const std::string& recordPath,
                         std::uint32_t mtu, std::uint16_t localPort)
    : name(std::move(clientName)), record(std::fopen(recordPath.c_str(), "wb")) {
    ENetAddress local = {ENET_HOST_ANY, localPort};
    host = enet_host_create(localPort != 0 ? &local : nullptr, 1, 2, 0, 0);
    ENetAddress target = {};
    if (host == nullptr || enet_address_set_host(&target, hostName.c_str()) != 0) {
        return;
    }
    if (mtu != 0) {
        host->mtu = mtu;
        host->peers[0].mtu = mtu;  // What the connect offers: taken from the host when it was made.
    }
    host->intercept = countFragments;
    target.port = port;
    peer = enet_host_connect(host, &target, 2, connectData);
}

ProbeClient::~ProbeClient() {
    if (host != nullptr) {
        enet_host_destroy(host);  // Says nothing to the server: the client vanishes.
    }
}

void ProbeClient::send(std::uint8_t channel, bool reliable,
                       const std::vector<unsigned char>& message) {
    ENetPacket* const packet = enet_packet_create(
        message.data(), message.size(),
        reliable ? static_cast<enet_uint32>(ENET_PACKET_FLAG_RELIABLE)
                 : static_cast<enet_uint32>(ENET_PACKET_FLAG_UNRELIABLE_FRAGMENT));
    if (enet_peer_send(peer, channel, packet) < 0) {
        enet_packet_destroy(packet);
        std::printf("error %s cannot send\n", name.c_str());
    }
    enet_host_flush(host);
}

void ProbeClient::disconnect(std::uint32_t data) {
    enet_peer_disconnect(peer, data);
    enet_host_flush(host);
}

void ProbeClient::refuseThinning() {
    enet_peer_throttle_configure(peer, ENET_PEER_PACKET_THROTTLE_INTERVAL,
                                 ENET_PEER_PACKET_THROTTLE_ACCELERATION, 0);
}

void ProbeClient::printStatistics() const {
    std::printf("statistics %s packets %llu bytes %llu fragments %llu largest %llu\n", name.c_str(),
                static_cast<unsigned long long>(packets), static_cast<unsigned long long>(bytes),
                static_cast<unsigned long long>(fragments),
                static_cast<unsigned long long>(largestDatagram));
}

void ProbeClient::keep(const ENetPacket& packet) {
    ++packets;
    bytes += packet.dataLength;
    const std::uint32_t head[2] = {enet_time_get(), static_cast<std::uint32_t>(packet.dataLength)};
    std::fwrite(head, sizeof head, 1, record.get());
    std::fwrite(packet.data, 1, packet.dataLength, record.get());
    std::fflush(record.get());
}

void ProbeClient::printConnected() const {
    ENetAddress local = {};  // The host's own record knows only a port that was asked for.
    enet_socket_get_address(host->socket, &local);
    std::printf("connected %s port %u\n", name.c_str(), static_cast<unsigned>(local.port));
}

void ProbeClient::service() {
    ENetEvent event = {};
    while (!stalled && enet_host_service(host, &event, 0) > 0) {
        switch (event.type) {
            case ENET_EVENT_TYPE_CONNECT:
                printConnected();
                break;
            case ENET_EVENT_TYPE_DISCONNECT:
                std::printf("disconnected %s data %u\n", name.c_str(),
                            static_cast<unsigned>(event.data));
                break;
            case ENET_EVENT_TYPE_RECEIVE:
                keep(*event.packet);
                enet_packet_destroy(event.packet);
                break;
            default:
                break;
        }
    }
}
