#include "tests/unit/listen/udp_responder.h"

#include <algorithm>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

UdpResponder::UdpResponder(const char* address, std::uint16_t port, Handler handler)
    : handler_(std::move(handler)),
      socket_(boundSocket(address, port)),
      thread_([this] { run(); }) {}

UdpResponder::~UdpResponder() {
    stop_ = true;
    thread_.join();
    close(socket_);
}

void UdpResponder::join(const char* group) {
    ip_mreq membership = {};
    inet_pton(AF_INET, group, &membership.imr_multiaddr);
    inet_pton(AF_INET, "127.0.0.1", &membership.imr_interface);
    EXPECT_EQ(setsockopt(socket_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership),
              0);
}

void UdpResponder::run() {
    while (!stop_) {
        pollfd waiting = {socket_, POLLIN, 0};
        if (poll(&waiting, 1, 20) <= 0) {
            continue;
        }
        char text[2048];
        sockaddr_in sender = {};
        socklen_t length = sizeof sender;
        const ssize_t count =
            recvfrom(socket_, text, sizeof text, 0, reinterpret_cast<sockaddr*>(&sender), &length);
        if (count >= 0) {
            handler_(socket_, std::string(text, static_cast<std::size_t>(count)), sender);
        }
    }
}

std::uint16_t portOf(int handle) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

int boundSocket(const char* address, std::uint16_t port) {
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    inet_pton(AF_INET, address, &local.sin_addr);
    EXPECT_EQ(bind(handle, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    return handle;
}

void sendText(int handle, const std::string& text, const sockaddr_in& receiver) {
    sendto(handle, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&receiver),
           sizeof receiver);
}
