#include "listen/network/discovery_client.h"

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "stream/wire_format.h"
#include "tests/support/net_namespace.h"
#include "tests/support/udp_socket.h"

using std::chrono::milliseconds;
using vxlisten::discoverServers;
using vxlisten::DiscoverySearch;

namespace {

/// Answers datagrams on the loopback interface with texts of the test's choice.
class Responder {
  public:
    explicit Responder(std::vector<std::string> answers, int ignored = 0)
        : answers_(std::move(answers)),
          ignored_(ignored),
          end_("0.0.0.0", 0,
               [this](const UdpSocket& own, const Datagram& datagram) { answer(own, datagram); }) {
        end_.socket().join(wire::DISCOVERY_GROUP);
    }

    std::uint16_t port() const { return end_.socket().port(); }

    std::atomic<int> queries{0};
    std::string query;

  private:
    void answer(const UdpSocket& own, const Datagram& datagram) {
        query = datagram.text;
        if (++queries > ignored_) {
            for (const std::string& reply : answers_) {
                own.answer(datagram, reply);
            }
        }
    }

    std::vector<std::string> answers_;
    int ignored_;
    UdpResponder end_;
};

class DiscoveryClient : public testing::Test {
    const LoopbackNetwork network_;
};

DiscoverySearch searchFor(const Responder& responder, int limitMs) {
    DiscoverySearch search;
    search.ports = {responder.port()};
    search.limit = milliseconds(limitMs);
    search.grace = milliseconds(50);
    return search;
}

}  // namespace

TEST_F(DiscoveryClient, FindsTheServerThatAnswers) {
    const Responder responder({"VelantrixResponse"});
    const auto result = discoverServers(searchFor(responder, 3000));
    ASSERT_EQ(result.servers.size(), 1u);
    EXPECT_EQ(result.servers[0].address, "127.0.0.1");
    EXPECT_GE(result.servers[0].responseMs, 0.0);
    EXPECT_EQ(responder.query, "VelantrixQuery2");
}

TEST_F(DiscoveryClient, AsksAgainWhenAQueryGetsLost) {
    const Responder responder({"VelantrixResponse"}, 2);
    const auto result = discoverServers(searchFor(responder, 20000));
    EXPECT_EQ(result.servers.size(), 1u);
    EXPECT_GE(responder.queries, 3);
}

TEST_F(DiscoveryClient, ListsAServerOnceHoweverOftenItAnswers) {
    const Responder responder({"VelantrixResponse", "VelantrixResponse"});
    EXPECT_EQ(discoverServers(searchFor(responder, 3000)).servers.size(), 1u);
}

TEST_F(DiscoveryClient, EndsWithTheServerThatIsWanted) {
    const Responder responder({"VelantrixResponse"});
    DiscoverySearch search = searchFor(responder, 60000);
    search.grace = milliseconds(60000);
    search.wanted = "127.0.0.1";
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(discoverServers(search).servers.size(), 1u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST_F(DiscoveryClient, TakesNothingElseForAnAnswer) {
    const Responder responder({"velantrixresponse", "VelantrixResponse2", "VelantrixRespons",
                               std::string("VelantrixResponse\0", 18), "", std::string(90, 'x')});
    EXPECT_TRUE(discoverServers(searchFor(responder, 700)).servers.empty());
    EXPECT_GE(responder.queries, 1);
}
