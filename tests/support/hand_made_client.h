#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <enet/enet.h>

#include "tests/support/test_client.h"

using Bytes = std::vector<unsigned char>;

/// ENet's commands as they cross the network.
constexpr std::uint8_t CONTROL_CHANNEL = 255;
Bytes acknowledgement(std::uint8_t channel, std::uint16_t number, std::uint16_t sentTime);
Bytes connectCommand(std::uint32_t data, std::uint16_t outgoingPeerId = 0);
Bytes verifyConnectCommand();
Bytes goodbye(bool wantsAcknowledgement);
Bytes ping();
Bytes reliable(std::uint16_t number, const Bytes& data, std::uint8_t channel = 0);
Bytes unreliable(std::uint16_t reliableNumber, std::uint16_t number, const Bytes& data,
                 std::uint8_t channel = 0);
Bytes unsequenced(std::uint16_t group, const Bytes& data);

/// One fragment of a message of `totalLength` bytes; `number` is the message's first one.
struct Fragment {
    std::uint16_t number = 1;
    std::uint32_t count = 1;
    std::uint32_t index = 0;
    std::uint32_t totalLength = 1;
    std::uint32_t offset = 0;
    Bytes data = {'x'};
};
Bytes reliableFragment(const Fragment& fragment);
Bytes unreliableFragment(std::uint16_t reliableNumber, const Fragment& fragment);

/// Sends to a port of 127.0.0.1 a datagram to nobody's peer, or to a peer, as if it came from
/// another port there. Needs the rights of the network namespace.
void sendForged(std::uint16_t from, std::uint16_t to, std::uint16_t peerId, const Bytes& commands);

Bytes operator+(Bytes left, const Bytes& right);
Bytes operator*(const Bytes& command, int times);

/// A client by hand over real loopback UDP, which keeps only those of ENet's rules that the test
/// wants kept. It says nothing by itself but its first word, the wish to connect.
class HandMadeClient {
  public:
    /// `more`: commands in the datagram of that word.
    explicit HandMadeClient(std::uint32_t connectData = wire::CONNECT_MULTI_CLIENT | 1,
                            const Bytes& more = {});
    ~HandMadeClient();
    HandMadeClient(const HandMadeClient&) = delete;
    HandMadeClient& operator=(const HandMadeClient&) = delete;

    /// Takes what has come.
    void listen();

    /// Acknowledges what came since the last time; as if it had been sent at `sentTime`, if given.
    void acknowledgeAll(std::optional<std::uint16_t> sentTime = std::nullopt);

    /// Sends one datagram of commands to the server's peer.
    void send(const Bytes& commands, bool withTime = true);

    /// The local UDP port.
    [[nodiscard]] std::uint16_t port() const;

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

    int socket;
    unsigned session = 0;
};
