// Looking for servers, in a network of the test's own: its loopback interface alone.

#include "listen/find_server.h"

#include <list>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stream/wire_format.h"
#include "tests/support/net_namespace.h"
#include "tests/support/udp_socket.h"

namespace {

/// Servers with these addresses that hear queries at one port.
class Servers {
  public:
    Servers(const std::vector<const char*>& addresses, std::uint16_t port) {
        for (const char* const address : addresses) {
            answering_.emplace_back(0, address);
        }
        listening_.emplace("0.0.0.0", port,
                           [this](const UdpSocket& /*own*/, const Datagram& query) {
                               for (const UdpSocket& each : answering_) {
                                   each.answer(query, wire::DISCOVERY_RESPONSE);
                               }
                           });
        listening_->socket().join(wire::DISCOVERY_GROUP);
    }

  private:
    std::list<UdpSocket> answering_;
    std::optional<UdpResponder> listening_;
};

class FindServer : public testing::Test {
  protected:
    const LoopbackNetwork network_;
    vxlisten::ServerChoice choice_;
};

TEST_F(FindServer, AServerAtAPortOfTheUsersChoiceIsFoundAtTheOneAboveIt) {
    const Servers server({"127.0.0.2"}, 7001);
    choice_.port = 7000;
    choice_.portChosen = true;
    vxlisten::findServer(choice_);
    EXPECT_EQ(choice_.host, "127.0.0.2");
    EXPECT_TRUE(choice_.found);
}

TEST_F(FindServer, AServerAtTheUsualPortIsFoundAlthoughTheUserNamedAnother) {
    const Servers server({"127.0.0.2"}, wire::DEFAULT_DISCOVERY_PORT);
    choice_.port = 65535;
    choice_.portChosen = true;
    vxlisten::findServer(choice_);
    EXPECT_EQ(choice_.host, "127.0.0.2");
}

TEST_F(FindServer, OfSeveralServersTheFirstIsTakenAndAllAreTold) {
    const Servers servers({"127.0.0.2", "127.0.0.3"}, wire::DEFAULT_DISCOVERY_PORT);
    const vxlisten::DiscoveryResult result = vxlisten::findServer(choice_);
    ASSERT_EQ(result.servers.size(), 2U);
    EXPECT_EQ(choice_.host, result.servers[0].address);
    EXPECT_EQ(choice_.others, std::vector<std::string>{result.servers[1].address});
}

TEST_F(FindServer, AServerThatWasThereFromTheStartIsNoNewPlaceOfALostOne) {
    const Servers servers({"127.0.0.3", "127.0.0.4"}, wire::DEFAULT_DISCOVERY_PORT);
    choice_.found = true;
    choice_.others = {"127.0.0.3"};
    EXPECT_EQ(vxlisten::locateAgain(choice_, "127.0.0.2"), "127.0.0.4");
}

TEST(FindServerAlone, WithoutANetworkToAskInThatIsTold) {
    const NetNamespace nothing;
    vxlisten::ServerChoice choice;
    EXPECT_EQ(vxlisten::findServer(choice).error, "Network is unreachable");
    EXPECT_FALSE(choice.found);
}

}  // namespace
