#include "tests/support/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace {

constexpr std::size_t MAX_BYTES = 65536;
constexpr std::size_t UDP_HEADER = 8;

sockaddr_in makeAddress(const std::string& host, std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

void sendTo(int handle, const std::string& bytes, const sockaddr_in& receiver) {
    const ssize_t sent = sendto(handle, bytes.data(), bytes.size(), 0,
                                reinterpret_cast<const sockaddr*>(&receiver), sizeof receiver);
    EXPECT_EQ(sent, static_cast<ssize_t>(bytes.size()));
}

}  // namespace

UdpSocket::UdpSocket(std::uint16_t port, const char* address)
    : handle_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int yes = 1;
    setsockopt(handle_, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
    const sockaddr_in local = makeAddress(address, port);
    EXPECT_EQ(bind(handle_, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
}

UdpSocket::~UdpSocket() {
    close(handle_);
}

std::uint16_t UdpSocket::port() const {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(handle_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

void UdpSocket::join(const char* group) const {
    ip_mreq membership = {};
    inet_pton(AF_INET, group, &membership.imr_multiaddr);
    inet_pton(AF_INET, "127.0.0.1", &membership.imr_interface);
    EXPECT_EQ(setsockopt(handle_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership),
              0);
}

void UdpSocket::send(const std::string& text, const std::string& host, std::uint16_t port) const {
    sendTo(handle_, text, makeAddress(host, port));
}

std::optional<Datagram> UdpSocket::receive(int timeoutMs) const {
    pollfd ready{handle_, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) <= 0) {
        return std::nullopt;
    }
    static thread_local char bytes[MAX_BYTES];
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    const ssize_t got =
        recvfrom(handle_, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    if (got < 0) {
        return std::nullopt;
    }
    char host[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sender.sin_addr, host, sizeof host);
    return Datagram{std::string(bytes, static_cast<std::size_t>(got)), host,
                    ntohs(sender.sin_port)};
}

void sendFromPort(std::uint16_t from, const std::string& text, const std::string& host,
                  std::uint16_t port) {
    std::string bytes;
    const std::size_t checksum = 0;  // None.
    for (const std::size_t field :
         {std::size_t{from}, std::size_t{port}, UDP_HEADER + text.size(), checksum}) {
        bytes += {static_cast<char>(field >> 8U), static_cast<char>(field)};
    }
    const int raw = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
    sendTo(raw, bytes + text, makeAddress(host, 0));
    close(raw);
}

UdpResponder::UdpResponder(const char* address, std::uint16_t port, Handler handler)
    : socket_(port, address), thread_([this, handle = std::move(handler)] {
          while (!stop_) {
              if (const auto datagram = socket_.receive(20)) {
                  handle(socket_, *datagram);
              }
          }
      }) {}

UdpResponder::~UdpResponder() {
    stop_ = true;
    thread_.join();
}
