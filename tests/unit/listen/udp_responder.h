#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <thread>

/// The local port of a socket.
std::uint16_t portOf(int handle);

/// An IPv4 UDP socket whose datagrams a thread of its own hands to a function of the test's.
class UdpResponder {
  public:
    /// The socket's handle, a datagram and its sender; called on the responder's thread.
    using Handler = std::function<void(int, const std::string&, const sockaddr_in&)>;

    /// Port 0 lets the system choose.
    UdpResponder(const char* address, std::uint16_t port, Handler handler);
    ~UdpResponder();
    UdpResponder(const UdpResponder&) = delete;
    UdpResponder& operator=(const UdpResponder&) = delete;

    std::uint16_t port() const { return portOf(socket_); }
    /// Hears what is sent to a multicast group on the loopback interface as well.
    void join(const char* group);

  private:
    void run();

    Handler handler_;
    int socket_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// A UDP socket with this local address; port 0 lets the system choose.
int boundSocket(const char* address, std::uint16_t port);

/// Sends `text` from a socket.
void sendText(int handle, const std::string& text, const sockaddr_in& receiver);
