#include "tests/unit/discovery/udp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

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

UdpClient::UdpClient(std::uint16_t port) : handle(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int yes = 1;
    setsockopt(handle, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
    const sockaddr_in address = makeAddress("0.0.0.0", port);
    EXPECT_EQ(bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

UdpClient::~UdpClient() {
    close(handle);
}

void UdpClient::send(const std::string& text, const std::string& host, std::uint16_t port) const {
    sendTo(handle, text, makeAddress(host, port));
}

std::optional<Datagram> UdpClient::receive(int patienceMs) const {
    pollfd ready{handle, POLLIN, 0};
    if (poll(&ready, 1, patienceMs) <= 0) {
        return std::nullopt;
    }
    char bytes[2048];
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    const ssize_t got =
        recvfrom(handle, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    if (got < 0) {
        return std::nullopt;
    }
    char host[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sender.sin_addr, host, sizeof host);
    return Datagram{std::string(bytes, static_cast<std::size_t>(got)), host,
                    ntohs(sender.sin_port)};
}

void sendWithoutSourcePort(const std::string& text, const std::string& host, std::uint16_t port) {
    const std::size_t total = 8 + text.size();
    std::string bytes(8, '\0');  // Source port 0, and a checksum of 0: none.
    bytes[2] = static_cast<char>(port >> 8);
    bytes[3] = static_cast<char>(port & 0xFF);
    bytes[4] = static_cast<char>(total >> 8);
    bytes[5] = static_cast<char>(total & 0xFF);
    const int raw = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
    sendTo(raw, bytes + text, makeAddress(host, 0));
    close(raw);
}
