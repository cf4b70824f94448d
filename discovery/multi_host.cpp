#include "discovery/multi_host.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/base/Thread.h"
#include "app/base/console.h"
#include "discovery/query.h"
#include "stream/wire_format.h"

namespace {

constexpr std::size_t RECEIVE_ROOM = 256;
constexpr int ANSWER_PAUSE_MS = 100;
constexpr int RECEIVE_PAUSE_MS = 500;

/// An IPv4 UDP socket; closed on destruction. Child processes do not inherit it.
class UdpSocket {
  public:
    UdpSocket() : handle_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~UdpSocket() {
        if (isOpen()) {
            ::close(handle_);
        }
    }
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    [[nodiscard]] bool isOpen() const { return handle_ >= 0; }

    template <class Value>
    [[nodiscard]] bool setOption(int level, int name, const Value& value) const {
        return ::setsockopt(handle_, level, name, &value, sizeof value) == 0;
    }

    [[nodiscard]] bool bind(std::uint16_t port) const {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        address.sin_port = htons(port);
        return ::bind(handle_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    /// Receives one datagram, cut to `room`; its length, or a negative value after an error.
    [[nodiscard]] ssize_t receive(char* buffer, std::size_t room, sockaddr_in& sender) const {
        socklen_t length = sizeof sender;
        return ::recvfrom(handle_, buffer, room, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    }

    [[nodiscard]] bool send(const char* text, const sockaddr_in& receiver) const {
        return ::sendto(handle_, text, std::strlen(text), 0,
                        reinterpret_cast<const sockaddr*>(&receiver), sizeof receiver) >= 0;
    }

  private:
    int handle_;
};

bool joinGroup(const UdpSocket& socket) {
    ip_mreq membership = {};
    inet_pton(AF_INET, wire::DISCOVERY_GROUP, &membership.imr_multiaddr);
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    return socket.setOption(IPPROTO_IP, IP_ADD_MEMBERSHIP, membership);
}

/// Makes `socket` ready to receive queries; false after a report of the step that failed.
bool setUp(const UdpSocket& socket, std::uint16_t port) {
    const char* failure = nullptr;
    if (!socket.isOpen()) {
        failure = "multiHost: Socket open failed";
    } else if (!socket.setOption(SOL_SOCKET, SO_REUSEADDR, 1)) {
        failure = "multiHost: Socket reuse option failed";
    } else if (!socket.bind(port)) {
        failure = "multiHost: Bind failed";
    } else if (!joinGroup(socket)) {
        failure = "multiHost: Socket multicast group add failed";
    }
    if (failure != nullptr) {
        consolePerror(failure);
    }
    return failure == nullptr;
}

/// Sends the response and pauses, which bounds the rate of responses. Returns 0, or the error
/// number of a failed send, which the caller reports last.
[[nodiscard]] int answer(const UdpSocket& socket, const sockaddr_in& receiver) {
    const int error = socket.send(wire::DISCOVERY_RESPONSE, receiver) ? 0 : errno;
    Sleep(ANSWER_PAUSE_MS);
    return error;
}

/// Prints `failure` with the text of `error`; nothing for 0.
void report(const char* failure, int error) {
    if (error != 0) {
        errno = error;
        consolePerror(failure);
    }
}

/// As answer(), from a separate socket, which is then closed. Returns 0 also when there is no
/// socket, which it reports.
[[nodiscard]] int answerAtFixedPort(const sockaddr_in& sender, std::uint16_t port) {
    const UdpSocket socket;
    if (!socket.isOpen()) {
        consolePerror("multiHost: Response socket open failed");
        return 0;
    }
    sockaddr_in receiver = sender;
    receiver.sin_port = htons(port);
    return answer(socket, receiver);
}

void serveDatagram(const UdpSocket& socket, std::uint16_t port) {
    char text[RECEIVE_ROOM] = {};
    sockaddr_in sender = {};
    const ssize_t received = socket.receive(text, sizeof text - 1, sender);
    if (received <= 0) {
        Sleep(RECEIVE_PAUSE_MS);
        return;
    }
    const DiscoveryQuery query = recognizeQuery(text, static_cast<std::size_t>(received));
    maskControlBytes(text);
    consolePrintf("Multicast received %d bytes: %s\n", static_cast<int>(received), text);
    if (query == DiscoveryQuery::ToSenderSocket) {
        report("multiHost: Socket sendto failed", answer(socket, sender));
    } else if (query == DiscoveryQuery::ToFixedPort) {
        report("multiHost: Response socket sendto failed", answerAtFixedPort(sender, port));
    }
}

}  // namespace

int multiHost() {
    const std::uint16_t port = discoveryPort();
    const UdpSocket socket;
    if (!setUp(socket, port)) {
        return 1;
    }
    for (;;) {
        serveDatagram(socket, port);
    }
}
