#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "stream/wire_format.h"

/// One packet as a client received it.
struct ReceivedPacket {
    wire::PacketHeader header;
    std::vector<unsigned char> bytes;  ///< Header included.
    bool reliable;
};

/// A client of the server over real UDP, which its owner services. Its calls of ENet are neither
/// counted nor failed by a test's diversions.
class TestClient {
  public:
    /// Begins to connect to `port` of a server with connect data: protocol version in the low byte,
    /// bit 31 for multi-client. `localPort` 0: any. `mtu` 0: ENet's own. Check ok() where the
    /// server or the local port may not be there.
    explicit TestClient(std::uint32_t connectData, std::uint16_t localPort = 0,
                        std::uint32_t mtu = 0, std::uint16_t port = wire::DEFAULT_SERVER_PORT,
                        const std::string& serverHost = "127.0.0.1");
    ~TestClient();  ///< No disconnect: the client vanishes.
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    [[nodiscard]] bool ok() const { return peer != nullptr; }

    /// Handles what has arrived, and keeps it below; does not wait.
    void service();

    /// The same, but shows each event to `handle` instead. Packets are borrowed.
    void service(const std::function<void(const ENetEvent&)>& handle) const;

    /// Queues and flushes a control message on a channel; false on failure.
    bool send(const std::vector<unsigned char>& message, std::uint8_t channel = 0,
              enet_uint32 delivery = ENET_PACKET_FLAG_RELIABLE) const;

    /// Disconnects; service() must then be called to send it.
    void leave(std::uint32_t data = 0) const;

    /// The local UDP port.
    [[nodiscard]] std::uint16_t port() const;

    bool connected = false;
    std::optional<std::uint32_t> disconnectData;  ///< Set when the server has closed.
    std::vector<ReceivedPacket> packets;
    ENetHost* host;  ///< Owned.
    ENetPeer* peer = nullptr;
};

/// A Data request with these flags and name; `terminated`: with a NUL behind the name.
std::vector<unsigned char> dataRequest(std::uint32_t flags, const std::string& name = "test",
                                       bool terminated = true);

/// A control message of 16 bytes.
std::vector<unsigned char> controlMessage(std::uint32_t id, std::uint32_t flags = 0);
