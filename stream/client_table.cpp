#include "stream/client_table.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>

#include "app/base/console.h"
#include "app/base/core_pin.h"
#include "stream/capture_thread.h"
#include "stream/enet_mtu.h"
#include "stream/wire_format.h"

std::array<ClientSlot, CLIENT_SLOTS> clientConn{};
std::int32_t connectCount = 0;

namespace {

constexpr std::size_t ADDRESS_TEXT_ROOM = 256;

/// How far in the future the search for the oldest slot starts, in seconds.
constexpr std::time_t OLDEST_SEARCH_START = 100;

std::uint8_t flag(bool set) {
    return set ? 1 : 0;
}

bool sameAddress(const ENetAddress& a, const ENetAddress& b) {
    return a.host == b.host && a.port == b.port;
}

/// Disconnects the slot's client because another one takes its place. Old clients stay connected.
void disconnectReplaced(const ClientSlot& slot) {
    if (slot.protocolVersion != 0) {
        enet_peer_disconnect(slot.peer, wire::DISCONNECT_REPLACED);
    }
}

ClientSlot& oldestSlot() {
    ClientSlot* oldest = &clientConn.front();
    std::time_t earliest = std::time(nullptr) + OLDEST_SEARCH_START;
    for (ClientSlot& slot : clientConn) {
        if (slot.connectTime < earliest) {
            earliest = slot.connectTime;
            oldest = &slot;
        }
    }
    return *oldest;
}

/// Finds a slot for a new client, if need be that of the oldest.
ClientSlot& makeRoomFor(const ENetPeer& newPeer) {
    for (ClientSlot& slot : clientConn) {
        if (slot.peer == nullptr) {
            return slot;
        }
    }
    ClientSlot& oldest = oldestSlot();
    if (sameAddress(oldest.peer->address, newPeer.address)) {
        consolePuts("Connect for same ip/port as current connection, skipping disconnect");
    } else {
        disconnectReplaced(oldest);
    }
    oldest = ClientSlot{};
    return oldest;
}

void dropSingleClients() {
    for (ClientSlot& slot : clientConn) {
        if (slot.peer != nullptr && slot.multiClient == 0) {
            disconnectReplaced(slot);
            slot = ClientSlot{};
        }
    }
}

/// The slot that holds the peer; if none does, the first with its address, because ENet reuses
/// peers. Null: none.
ClientSlot* slotOfDisconnected(const ENetPeer& peer) {
    ClientSlot* first = nullptr;
    for (ClientSlot& slot : clientConn) {
        if (slot.peer == &peer) {
            return &slot;
        }
        if (first == nullptr && slot.peer != nullptr &&
            sameAddress(slot.peer->address, peer.address)) {
            first = &slot;
        }
    }
    return first;
}

/// Copies the NUL-terminated name after the header, cut to the length of `name` and of the packet.
void readClientName(const ENetPacket& packet, char (&name)[wire::MAX_CLIENT_NAME + 1]) {
    const std::size_t available =
        packet.dataLength > wire::HEADER_LENGTH ? packet.dataLength - wire::HEADER_LENGTH : 0;
    const std::size_t taken = std::min(available, wire::MAX_CLIENT_NAME);
    if (taken > 0) {
        std::memcpy(name, packet.data + wire::HEADER_LENGTH, taken);
    }
    name[taken] = '\0';
}

void handleDataRequest(ClientSlot& slot, const wire::PacketHeader& header,
                       const ENetPacket& packet) {
    const auto index = static_cast<int>(&slot - clientConn.data());
    consolePuts("Got Data request");
    slot.reliable = flag(header.reliable());
    consolePuts(header.reliable() ? "Sending audio data in reliable mode"
                                  : "Sending audio data in best-effort mode");
    slot.rateCode = header.rateCode();
    if (slot.rateCode != wire::RATE_CODE_RAW) {
        consolePrintf("Sending compressed audio data to client %d at rate code %d\n", index,
                      static_cast<int>(slot.rateCode));
    } else {
        consolePrintf("Sending uncompressed audio data to client %d\n", index);
    }
    slot.dataRequested = 1;

    char name[wire::MAX_CLIENT_NAME + 1];
    readClientName(packet, name);
    reportToCore(
        [&name](VelantrixServerNoGUI& core) { core.SetClientStatus(connectCount, name, false); });
}

void obey(ClientSlot& slot, const wire::PacketHeader& header, const ENetPacket& packet) {
    switch (header.msgId) {
        case wire::MSGID_DATA:
            handleDataRequest(slot, header, packet);
            break;
        case wire::MSGID_FASTER:
            consolePuts("Got Faster request");
            break;
        case wire::MSGID_SLOWER:
            consolePuts("Got Slower request");
            break;
        default:
            consolePrintf("Got unrecognized message ID %d\n", static_cast<int>(header.msgId));
            break;
    }
}

}  // namespace

void handleConnect(const ENetEvent& event) {
    assert(captureThread.here() && event.type == ENET_EVENT_TYPE_CONNECT);
    ++connectCount;
    reportToCore([](VelantrixServerNoGUI& core) { core.SetClientStatus(connectCount, "", false); });
    char address[ADDRESS_TEXT_ROOM];
    consolePrintf("A new client connected from %s:%u (prot ver %d)\n",
                  ipToString(event.peer->address.host, address),
                  static_cast<unsigned>(event.peer->address.port),
                  static_cast<int>(event.data & wire::CONNECT_VERSION_MASK));
    raisePeerMtu(*event.peer);

    ClientSlot& slot = makeRoomFor(*event.peer);
    dropSingleClients();
    slot.protocolVersion = event.data & wire::CONNECT_VERSION_MASK;
    slot.multiClient = flag((event.data & wire::CONNECT_MULTI_CLIENT) != 0);
    slot.reliable = 1;
    slot.rateCode = wire::RATE_CODE_RAW;
    slot.dataRequested = 0;
    slot.peer = event.peer;
    slot.connectTime = std::time(nullptr);
}

void handleDisconnect(const ENetEvent& event) {
    assert(captureThread.here() && event.type == ENET_EVENT_TYPE_DISCONNECT);
    --connectCount;
    reportToCore(
        [](VelantrixServerNoGUI& core) { core.SetClientStatus(connectCount, nullptr, false); });
    char address[ADDRESS_TEXT_ROOM];
    consolePrintf("Client %s:%u disconnected\n", ipToString(event.peer->address.host, address),
                  static_cast<unsigned>(event.peer->address.port));

    if (ClientSlot* const slot = slotOfDisconnected(*event.peer)) {
        *slot = ClientSlot{};
    }
}

void handleReceive(const ENetEvent& event) {
    assert(captureThread.here() && event.type == ENET_EVENT_TYPE_RECEIVE);
    const wire::PacketHeader header =
        wire::readHeader(event.packet->data, event.packet->dataLength);
    for (ClientSlot& slot : clientConn) {
        if (slot.peer != nullptr && sameAddress(slot.peer->address, event.peer->address)) {
            obey(slot, header, *event.packet);
        }
    }
    enet_packet_destroy(event.packet);
}

char* ipToString(unsigned long host, char* dst) {
    unsigned char bytes[4];
    const auto low = static_cast<std::uint32_t>(host);
    std::memcpy(bytes, &low, sizeof bytes);
    std::snprintf(dst, sizeof "255.255.255.255", "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2],
                  bytes[3]);
    return dst;
}
