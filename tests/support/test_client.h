#pragma once

#include <cstdint>
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

/// A client of the server over real loopback UDP, serviced by the test itself.
class TestClient {
  public:
    /// Begins to connect to 127.0.0.1:`port` with connect data: protocol version in the low byte,
    /// bit 31 for company. `localPort` 0: any. `mtu` 0: ENet's own.
    explicit TestClient(std::uint32_t connectData, std::uint16_t localPort = 0,
                        std::uint32_t mtu = 0, std::uint16_t port = wire::DEFAULT_SERVER_PORT);
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    /// Handles what has arrived; does not wait.
    void service();

    /// Queues and flushes a reliable control message on a channel.
    void send(const std::vector<unsigned char>& message, std::uint8_t channel = 0);

    /// Leaves with a notice; service() must go on for it to go out.
    void leave();

    /// The local UDP port.
    [[nodiscard]] std::uint16_t port() const;

    bool connected = false;
    std::optional<std::uint32_t> disconnectData;  ///< Set when the server has closed.
    std::vector<ReceivedPacket> packets;
    ENetHost* host;  ///< Owned.
    ENetPeer* peer;
};

/// A Data request with these flags and name; `terminated`: with a NUL behind the name.
std::vector<unsigned char> dataRequest(std::uint32_t flags, const std::string& name = "test",
                                       bool terminated = true);

/// A control message of 16 bytes.
std::vector<unsigned char> controlMessage(std::uint32_t id, std::uint32_t flags = 0);
