#include "listen/network/discovery_client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "listen/stop_request.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds QUERY_INTERVAL{500};
constexpr Milliseconds POLL_STEP{50};
constexpr std::size_t RESPONSE_ROOM = 64;

class Search {
  public:
    explicit Search(const DiscoverySearch& search)
        : search_(search), socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~Search() {
        if (socket_ >= 0) {
            close(socket_);
        }
    }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    DiscoveryResult run() {
        const Clock::time_point start = Clock::now();
        Clock::time_point end = start + search_.limit;
        queryTime_ = start - QUERY_INTERVAL;
        while (Clock::now() < end && !stopRequested()) {
            if (Clock::now() - queryTime_ >= QUERY_INTERVAL && !sendQueries()) {
                break;
            }
            const bool hadNone = result_.servers.empty();
            waitForResponses();
            if (isKnown(search_.wanted)) {
                break;
            }
            if (hadNone && !result_.servers.empty()) {
                end = std::min(end, Clock::now() + search_.grace);
            }
        }
        return result_;
    }

  private:
    /// Sends one round of queries; false when none could be sent and none was before.
    bool sendQueries() {
        queryTime_ = Clock::now();
        for (const std::uint16_t port : search_.ports) {
            sockaddr_in target = {};
            target.sin_family = AF_INET;
            target.sin_port = htons(port);
            inet_pton(AF_INET, wire::DISCOVERY_GROUP, &target.sin_addr);
            const ssize_t sent =
                sendto(socket_, wire::DISCOVERY_QUERY2, std::strlen(wire::DISCOVERY_QUERY2), 0,
                       reinterpret_cast<const sockaddr*>(&target), sizeof target);
            everSent_ = everSent_ || sent >= 0;
            lastError_ = sent < 0 ? errno : lastError_;
        }
        if (!everSent_) {
            result_.error = std::generic_category().message(lastError_);
        }
        return everSent_;
    }

    void waitForResponses() {
        pollfd waiting = {socket_, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(POLL_STEP.count())) <= 0) {
            return;
        }
        char response[RESPONSE_ROOM];
        sockaddr_in sender = {};
        socklen_t senderLength = sizeof sender;
        const ssize_t length = recvfrom(socket_, response, sizeof response, 0,
                                        reinterpret_cast<sockaddr*>(&sender), &senderLength);
        const std::size_t expected = std::strlen(wire::DISCOVERY_RESPONSE);
        if (length == static_cast<ssize_t>(expected) &&
            std::memcmp(response, wire::DISCOVERY_RESPONSE, expected) == 0) {
            remember(sender);
        }
    }

    [[nodiscard]] bool isKnown(const std::string& address) const {
        return std::any_of(
            result_.servers.begin(), result_.servers.end(),
            [&address](const FoundServer& server) { return server.address == address; });
    }

    void remember(const sockaddr_in& sender) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &sender.sin_addr, text, sizeof text);
        if (!isKnown(text)) {
            const std::chrono::duration<double, std::milli> time = Clock::now() - queryTime_;
            result_.servers.push_back({text, time.count()});
        }
    }

    const DiscoverySearch& search_;
    int socket_;
    Clock::time_point queryTime_;
    bool everSent_ = false;
    int lastError_ = 0;
    DiscoveryResult result_;
};

}  // namespace

DiscoveryResult discoverServers(const DiscoverySearch& search) {
    return Search(search).run();
}

}  // namespace vxlisten
