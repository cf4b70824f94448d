#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// A datagram as it was received.
struct Datagram {
    std::string text;
    std::string host;  ///< The sender's address, dotted.
    std::uint16_t port = 0;
};

/// A UDP socket of a client app, in the network namespace of the thread that builds it.
class UdpClient {
  public:
    /// Bound to `port`; 0: one that the system picks.
    explicit UdpClient(std::uint16_t port = 0);
    ~UdpClient();
    UdpClient(const UdpClient&) = delete;
    UdpClient& operator=(const UdpClient&) = delete;

    void send(const std::string& text, const std::string& host, std::uint16_t port) const;

    /// The next datagram, or nothing when none comes within `patienceMs`.
    [[nodiscard]] std::optional<Datagram> receive(int patienceMs) const;

  private:
    int handle;
};

/// Sends a datagram whose source port is 0, to which nobody can answer.
void sendWithoutSourcePort(const std::string& text, const std::string& host, std::uint16_t port);
