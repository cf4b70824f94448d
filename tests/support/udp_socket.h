#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

/// A datagram as it was received.
struct Datagram {
    std::string text;
    std::string host;  ///< The sender's address, dotted.
    std::uint16_t port = 0;
};

/// An IPv4 UDP socket in the network namespace of the thread that builds it.
class UdpSocket {
  public:
    /// Bound to `port` (0: one that the system picks) of a local address.
    explicit UdpSocket(std::uint16_t port = 0, const char* address = "0.0.0.0");
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    [[nodiscard]] std::uint16_t port() const;

    /// Also receives from a multicast group on the loopback interface.
    void join(const char* group) const;

    void send(const std::string& text, const std::string& host, std::uint16_t port) const;

    /// Sends `text` to the sender of a datagram.
    void answer(const Datagram& datagram, const std::string& text) const {
        send(text, datagram.host, datagram.port);
    }

    /// The next datagram, or nothing when none comes within `timeoutMs`.
    [[nodiscard]] std::optional<Datagram> receive(int timeoutMs) const;

  private:
    int handle_;
};

/// Sends a datagram with the source port `from`, also one in use; 0: it cannot be answered. Needs
/// the rights of the network namespace.
void sendFromPort(std::uint16_t from, const std::string& text, const std::string& host,
                  std::uint16_t port);

/// A socket whose datagrams a separate thread passes to a function of the test.
class UdpResponder {
  public:
    /// Called on the responder's thread.
    using Handler = std::function<void(const UdpSocket& own, const Datagram& datagram)>;

    UdpResponder(const char* address, std::uint16_t port, Handler handler);
    ~UdpResponder();

    [[nodiscard]] const UdpSocket& socket() const { return socket_; }

  private:
    UdpSocket socket_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
