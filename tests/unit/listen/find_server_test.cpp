// Looking for servers, in a network of the test's own: its loopback interface alone.

#include "listen/find_server.h"

#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "stream/wire_format.h"
#include "tests/support/net_namespace.h"
#include "tests/unit/listen/loopback_test.h"
#include "tests/unit/listen/udp_responder.h"

namespace {

/// Servers with these addresses that hear queries at one port.
class Servers {
  public:
    Servers(const std::vector<const char*>& addresses, std::uint16_t port) {
        for (const char* const address : addresses) {
            answering_.push_back(boundSocket(address, 0));
        }
        const auto heard = [this](int /*handle*/, const std::string& /*text*/,
                                  const sockaddr_in& sender) { answer(sender); };
        listening_.emplace("0.0.0.0", port, heard);
        listening_->join(wire::DISCOVERY_GROUP);
    }
    ~Servers() {
        listening_.reset();  // Its thread uses the others.
        for (const int handle : answering_) {
            close(handle);
        }
    }
    Servers(const Servers&) = delete;
    Servers& operator=(const Servers&) = delete;

  private:
    void answer(const sockaddr_in& sender) const {
        for (const int handle : answering_) {
            sendText(handle, wire::DISCOVERY_RESPONSE, sender);
        }
    }

    std::vector<int> answering_;
    std::optional<UdpResponder> listening_;
};

class FindServer : public LoopbackTest {
  protected:
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
