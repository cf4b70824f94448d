#include "listen/network/receiver.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "listen/clock.h"
#include "listen/utf8.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

/// Not 0: the server then disconnects us when it drops us.
constexpr std::uint32_t PROTOCOL_VERSION = 1;
constexpr std::size_t CHANNELS = 2;
constexpr enet_uint8 CONTROL_CHANNEL = 0;
/// Holds several seconds of raw audio while a disk or a pipe blocks us.
constexpr int SOCKET_BUFFER = 1 << 20;
constexpr std::size_t MAXIMUM_PACKET = 1 << 16;
// A server that is silent for this long is gone: it sends about 140 packets a second.
constexpr enet_uint32 TIMEOUT_ATTEMPTS = 8;
constexpr enet_uint32 TIMEOUT_MINIMUM_MS = 3000;
constexpr enet_uint32 TIMEOUT_MAXIMUM_MS = 6000;
constexpr std::int64_t PING_TIMEOUT = SECOND;

std::string toText(const ENetAddress& address) {
    char text[64] = "";
    enet_address_get_host_ip(&address, text, sizeof text);
    return text;
}

}  // namespace

std::string lookUpAddress(const std::string& host) {
    ENetAddress address = {};
    return enet_address_set_host(&address, host.c_str()) == 0 ? toText(address) : std::string();
}

Receiver::~Receiver() {
    if (host_ != nullptr) {
        enet_host_destroy(host_);
        enet_deinitialize();
    }
}

bool Receiver::open() {
    if (enet_initialize() != 0) {
        return false;
    }
    host_ = enet_host_create(nullptr, 1, CHANNELS, 0, 0);
    if (host_ == nullptr) {
        enet_deinitialize();
        return false;
    }
    host_->peers[0].data = this;
    host_->intercept = onDatagram;
    host_->maximumPacketSize = MAXIMUM_PACKET;
    enet_socket_set_option(host_->socket, ENET_SOCKOPT_RCVBUF, SOCKET_BUFFER);
    return true;
}

bool Receiver::resolve(const std::string& host, std::uint16_t port) {
    address_.port = port;
    return enet_address_set_host(&address_, host.c_str()) == 0;
}

bool Receiver::connect(const StreamChoice& choice) {
    assert(thread_.here() && host_ != nullptr);
    drop();
    pingedAt_ = roundTrip_ = -1;
    const std::uint32_t data =
        PROTOCOL_VERSION | (choice.multiClient ? wire::CONNECT_MULTI_CLIENT : 0U);
    peer_ = enet_host_connect(host_, &address_, CHANNELS, data);
    if (peer_ == nullptr) {
        return false;
    }
    enet_peer_timeout(peer_, TIMEOUT_ATTEMPTS, TIMEOUT_MINIMUM_MS, TIMEOUT_MAXIMUM_MS);
    return true;
}

void Receiver::requestData(const StreamChoice& choice) {
    assert(thread_.here() && peer_ != nullptr);
    const std::string name = cutText(choice.name, wire::MAX_CLIENT_NAME);
    std::vector<unsigned char> message(wire::HEADER_LENGTH + name.size() + 1, 0);
    wire::PacketHeader header;
    header.msgId = wire::MSGID_DATA;
    header.flags = wire::makeFlags(choice.reliable, false, choice.rateCode);
    wire::writeHeader(message.data(), header);
    std::copy(name.begin(), name.end(), message.begin() + wire::HEADER_LENGTH);
    ENetPacket* const packet =
        enet_packet_create(message.data(), message.size(), ENET_PACKET_FLAG_RELIABLE);
    // ENet then owns the packet, unless it refuses it.
    if (packet != nullptr && enet_peer_send(peer_, CONTROL_CHANNEL, packet) < 0 &&
        packet->referenceCount == 0) {
        enet_packet_destroy(packet);
    }
    enet_host_flush(host_);
}

ReceiverEvent Receiver::service(std::uint32_t milliseconds) {
    assert(thread_.here() && host_ != nullptr);
    ENetEvent event = {};
    ReceiverEvent result;
    const int found = enet_host_service(host_, &event, milliseconds);
    if (found < 0) {  // It returned at once, and may do so again.
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
    if (found <= 0) {
        return result;
    }
    switch (event.type) {
        case ENET_EVENT_TYPE_CONNECT:
            result.type = ReceiverEvent::Type::Connected;
            // By default the server's ENet drops best-effort packets whenever the round-trip time
            // rises. A constant stream gains nothing by that.
            enet_peer_throttle_configure(peer_, ENET_PEER_PACKET_THROTTLE_INTERVAL,
                                         ENET_PEER_PACKET_THROTTLE_ACCELERATION, 0);
            break;
        case ENET_EVENT_TYPE_RECEIVE:
            result.type = ReceiverEvent::Type::Packet;
            result.packet.reset(event.packet);
            break;
        case ENET_EVENT_TYPE_DISCONNECT:
            result.type = ReceiverEvent::Type::Disconnected;
            result.disconnectData = event.data;
            peer_ = nullptr;
            break;
        case ENET_EVENT_TYPE_NONE:
            break;
    }
    return result;
}

void Receiver::drop() {
    if (peer_ != nullptr) {
        enet_peer_reset(peer_);
        peer_ = nullptr;
    }
}

void Receiver::disconnect(std::uint32_t milliseconds) {
    if (peer_ == nullptr) {
        return;
    }
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    startDisconnect();
    while (peer_ != nullptr && Clock::now() < end) {
        service(10);
    }
    drop();
}

void Receiver::startDisconnect() {
    if (peer_ != nullptr) {
        enet_peer_disconnect(peer_, 0);
        enet_host_flush(host_);
    }
}

int Receiver::descriptor() const {
    assert(host_ != nullptr);
    return host_->socket;
}

void Receiver::ping() {
    assert(thread_.here());
    const std::int64_t now = steadyNow();
    const bool waiting = pingedAt_ >= 0 && now - pingedAt_ < PING_TIMEOUT;
    if (peer_ == nullptr || peer_->state != ENET_PEER_STATE_CONNECTED || waiting) {
        return;
    }
    enet_peer_ping(peer_);
    enet_host_flush(host_);
    pingMark_ = static_cast<enet_uint16>(host_->serviceTime & 0xFFFF);
    pingedAt_ = steadyNow();
}

std::optional<std::int64_t> Receiver::takeRoundTrip() {
    assert(thread_.here());
    const std::int64_t found = std::exchange(roundTrip_, -1);
    return found >= 0 ? std::optional(found) : std::nullopt;
}

int Receiver::onDatagram(ENetHost* host, ENetEvent* /*event*/) {
    auto* const self = static_cast<Receiver*>(host->peers[0].data);
    if (host->receivedAddress.host == self->address_.host &&
        host->receivedAddress.port == self->address_.port) {
        self->noteAnswers(host->receivedData, host->receivedDataLength);
    }
    return 0;
}

/// ENet itself only keeps the mean round trip in milliseconds. Acknowledgements come first in a
/// datagram.
void Receiver::noteAnswers(const enet_uint8* data, std::size_t length) {
    constexpr std::size_t SENT_TIME = sizeof(enet_uint16);
    if (pingedAt_ < 0 || length < sizeof(enet_uint16)) {
        return;
    }
    const unsigned flags = data[0];
    std::size_t at = sizeof(enet_uint16) +
                     ((flags << 8 & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0 ? SENT_TIME : 0);
    for (; at + sizeof(ENetProtocolAcknowledge) <= length; at += sizeof(ENetProtocolAcknowledge)) {
        ENetProtocolAcknowledge answer;
        std::memcpy(&answer, data + at, sizeof answer);
        if ((answer.header.command & ENET_PROTOCOL_COMMAND_MASK) !=
            ENET_PROTOCOL_COMMAND_ACKNOWLEDGE) {
            return;
        }
        if (ENET_NET_TO_HOST_16(answer.receivedSentTime) == pingMark_) {
            roundTrip_ = steadyNow() - pingedAt_;
            pingedAt_ = -1;
            return;
        }
    }
}

std::string Receiver::address() const {
    return toText(address_);
}

std::string Receiver::serverAddress() const {
    return address() + ":" + std::to_string(address_.port);
}

std::uint32_t Receiver::roundTripTime() const {
    return peer_ != nullptr && peer_->state == ENET_PEER_STATE_CONNECTED ? peer_->roundTripTime : 0;
}

}  // namespace vxlisten
