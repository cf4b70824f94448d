#include "listen/discovery_client.h"

#include <arpa/inet.h>
#include <atomic>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

using std::chrono::milliseconds;
using vxlisten::discoverServers;
using vxlisten::DiscoverySearch;

namespace {

/// Answers datagrams on the loopback interface with texts of the test's choice.
class Responder {
  public:
    explicit Responder(std::vector<std::string> answers, int ignored = 0)
        : answers_(std::move(answers)), ignored_(ignored) {
        socket_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        thread_ = std::thread([this] { answer(); });
    }
    ~Responder() {
        stop_ = true;
        thread_.join();
        close(socket_);
    }

    std::uint16_t port = 0;
    std::atomic<int> queries{0};
    std::string query;

  private:
    void answer() {
        while (!stop_) {
            pollfd waiting = {socket_, POLLIN, 0};
            char text[100];
            sockaddr_in sender = {};
            socklen_t length = sizeof sender;
            if (poll(&waiting, 1, 20) <= 0) {
                continue;
            }
            const ssize_t count = recvfrom(socket_, text, sizeof text, 0,
                                           reinterpret_cast<sockaddr*>(&sender), &length);
            query.assign(text, static_cast<std::size_t>(std::max<ssize_t>(0, count)));
            if (++queries > ignored_) {
                for (const std::string& reply : answers_) {
                    sendto(socket_, reply.data(), reply.size(), 0,
                           reinterpret_cast<sockaddr*>(&sender), length);
                }
            }
        }
    }

    std::vector<std::string> answers_;
    int ignored_;
    int socket_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

DiscoverySearch searchFor(const Responder& responder, int limitMs) {
    DiscoverySearch search;
    search.group = "127.0.0.1";
    search.ports = {responder.port};
    search.limit = milliseconds(limitMs);
    search.grace = milliseconds(50);
    return search;
}

}  // namespace

TEST(DiscoveryClient, FindsTheServerThatAnswers) {
    const Responder responder({"VelantrixResponse"});
    const auto result = discoverServers(searchFor(responder, 3000));
    ASSERT_EQ(result.servers.size(), 1u);
    EXPECT_EQ(result.servers[0].address, "127.0.0.1");
    EXPECT_GE(result.servers[0].answerMs, 0.0);
    EXPECT_EQ(responder.query, "VelantrixQuery2");
}

TEST(DiscoveryClient, AsksAgainWhenAQueryGetsLost) {
    const Responder responder({"VelantrixResponse"}, 2);
    const auto result = discoverServers(searchFor(responder, 20000));
    EXPECT_EQ(result.servers.size(), 1u);
    EXPECT_GE(responder.queries, 3);
}

TEST(DiscoveryClient, ListsAServerOnceHoweverOftenItAnswers) {
    const Responder responder({"VelantrixResponse", "VelantrixResponse"});
    EXPECT_EQ(discoverServers(searchFor(responder, 3000)).servers.size(), 1u);
}

TEST(DiscoveryClient, EndsWithTheServerThatIsWanted) {
    const Responder responder({"VelantrixResponse"});
    DiscoverySearch search = searchFor(responder, 60000);
    search.grace = milliseconds(60000);
    search.wanted = "127.0.0.1";
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(discoverServers(search).servers.size(), 1u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST(DiscoveryClient, TakesNothingElseForAnAnswer) {
    const Responder responder({"velantrixresponse", "VelantrixResponse2", "VelantrixRespons",
                               std::string("VelantrixResponse\0", 18), "", std::string(90, 'x')});
    EXPECT_TRUE(discoverServers(searchFor(responder, 700)).servers.empty());
    EXPECT_GE(responder.queries, 1);
}
