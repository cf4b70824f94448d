#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <enet/enet.h>

#include "tests/support/enet_commands.h"
#include "tests/support/test_client.h"
#include "tests/support/udp_socket.h"

/// Sends to a port of 127.0.0.1 a datagram to no peer, or to a peer, as if it came from another
/// port there. Needs the rights of the network namespace.
void sendForged(std::uint16_t from, std::uint16_t to, std::uint16_t peerId, const Bytes& commands);

/// A hand-made client over real loopback UDP, which keeps only those of ENet's rules that the test
/// needs. By itself it only sends the connect command.
class HandMadeClient {
  public:
    /// `more`: further commands in that datagram.
    explicit HandMadeClient(std::uint32_t connectData = wire::CONNECT_MULTI_CLIENT | 1,
                            const Bytes& more = {});

    /// Reads received datagrams.
    void listen();

    /// Acknowledges what was received since the last call, as if it had been sent at `sentTime`, if
    /// given.
    void acknowledgeAll(std::optional<std::uint16_t> sentTime = std::nullopt);

    /// Sends one datagram of commands to the server's peer.
    void send(const Bytes& commands, bool withTime = true);

    /// The local UDP port.
    [[nodiscard]] std::uint16_t port() const { return socket_.port(); }

    /// A command of the server's that wants an acknowledgement.
    struct Command {
        std::uint8_t type;
        std::uint8_t channel;
        std::uint16_t number;
        std::uint16_t sentTime;
    };

    std::vector<Command> unanswered;
    std::optional<std::uint16_t> peerId;  ///< Set when the server has answered the connect.
    std::optional<std::uint32_t> disconnectData;
    std::uint16_t serverTime = 0;  ///< Of the newest datagram: the lower half of its milliseconds.
    int datagrams = 0;             ///< That have come.
    int acknowledgements = 0;      ///< That have come.

  private:
    void take(const Bytes& datagram);
    void sendDatagram(const Bytes& datagram) const;

    UdpSocket socket_;
    unsigned session_ = 0;
};
