#include "tests/unit/web/web_client.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr int TIMEOUT_MS = 8000;

}  // namespace

WebClient::WebClient(std::uint16_t port, int receiveBuffer)
    : handle_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receiveBuffer > 0) {
        setsockopt(handle_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(handle_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

WebClient::~WebClient() {
    close(handle_);
}

void WebClient::send(const std::string& bytes) const {
    // The other side may close before it has read everything.
    const ssize_t sent = ::send(handle_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    static_cast<void>(sent);
}

void WebClient::request(const std::string& path, const std::string& lines,
                        const std::string& method) const {
    send(method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + lines + "\r\n");
}

void WebClient::upgrade(const std::string& path, const std::string& lines) const {
    request(path,
            "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Key: AQIDBAUGBwgJCgsMDQ4PEA==\r\n" +
                lines);
}

bool WebClient::receive() {
    pollfd waiting = {handle_, POLLIN, 0};
    char room[4096];
    const ssize_t length =
        poll(&waiting, 1, TIMEOUT_MS) > 0 ? recv(handle_, room, sizeof room, 0) : -1;
    if (length > 0) {
        bytes_.append(room, static_cast<std::size_t>(length));
    }
    return length > 0;
}

std::string WebClient::readUntil(const std::string& end) {
    while (bytes_.find(end) == std::string::npos && receive()) {
    }
    const std::size_t at = bytes_.find(end);
    return read(at == std::string::npos ? bytes_.size() : at + end.size());
}

std::string WebClient::read(std::size_t bytes) {
    while (bytes_.size() < bytes && receive()) {
    }
    std::string result = bytes_.substr(0, bytes);
    bytes_.erase(0, bytes);
    return result;
}

std::string WebClient::answer() {
    const std::string head = header();
    const std::string field = "Content-Length: ";
    const std::size_t at = head.find(field);
    return at == std::string::npos ? head : head + read(std::stoul(head.substr(at + field.size())));
}

std::string WebClient::chunk() {
    const std::string length = readUntil("\r\n");
    std::string content = read(std::strtoul(length.c_str(), nullptr, 16));
    read(2);
    return content;
}

bool WebClient::closes(int seconds) {
    pollfd waiting = {handle_, POLLIN, 0};
    char room[4096];
    while (poll(&waiting, 1, 1000 * seconds) > 0) {
        if (recv(handle_, room, sizeof room, 0) <= 0) {
            return true;
        }
    }
    return false;
}

WebClient::Frame WebClient::frame() {
    const std::string start = read(2);
    if (start.size() < 2) {
        return {};
    }
    std::size_t length = static_cast<unsigned char>(start[1]);
    if (length == 126) {
        const std::string more = read(2);
        length = 256UL * static_cast<unsigned char>(more[0]) + static_cast<unsigned char>(more[1]);
    }
    EXPECT_EQ(start[0] & 0xF0, 0x80) << "every frame is a whole message";
    return {start[0] & 0x0F, read(length)};
}

WebClient::Frame WebClient::control() {
    Frame next = frame();
    while (next.kind == 2) {
        next = frame();
    }
    return next;
}

WebClient::Frame WebClient::end() {
    Frame next = frame();
    while (next.kind != 8 && next.kind != -1) {
        next = frame();
    }
    return next;
}

std::string WebClient::text() {
    const Frame next = control();
    return next.kind == 1 ? next.content : "kind " + std::to_string(next.kind);
}

void WebClient::sendFrame(int first, const std::string& content, bool masked) const {
    std::string bytes(1, static_cast<char>(first));
    const int mark = masked ? 0x80 : 0;
    if (content.size() < 126) {
        bytes.push_back(static_cast<char>(mark | static_cast<int>(content.size())));
    } else {
        const bool large = content.size() > 65535;
        bytes.push_back(static_cast<char>(mark | (large ? 127 : 126)));
        for (int shift = large ? 56 : 8; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<char>(content.size() >> shift));
        }
    }
    // A mask of zeros leaves the content as it is.
    send(bytes + (masked ? std::string(4, '\0') : "") + content);
}
