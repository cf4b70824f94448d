// Looking for servers, in a network of the test's own: its loopback interface alone.

#include "listen/find_server.h"

#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "stream/wire_format.h"
#include "tests/fakes/net_namespace.h"

namespace {

int boundSocket(const char* address, std::uint16_t port) {
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    inet_pton(AF_INET, address, &local.sin_addr);
    EXPECT_EQ(bind(handle, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    return handle;
}

/// Servers with these addresses that hear queries at one port.
class Servers {
  public:
    Servers(const std::vector<const char*>& addresses, std::uint16_t port)
        : listening_(boundSocket("0.0.0.0", port)) {
        ip_mreq group = {};
        inet_pton(AF_INET, wire::DISCOVERY_GROUP, &group.imr_multiaddr);
        inet_pton(AF_INET, "127.0.0.1", &group.imr_interface);
        EXPECT_EQ(setsockopt(listening_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
        for (const char* const address : addresses) {
            answering_.push_back(boundSocket(address, 0));
        }
        thread_ = std::thread([this] { run(); });
    }
    ~Servers() {
        stop_ = true;
        thread_.join();
        close(listening_);
        for (const int handle : answering_) {
            close(handle);
        }
    }
    Servers(const Servers&) = delete;
    Servers& operator=(const Servers&) = delete;

  private:
    void run() {
        while (!stop_) {
            pollfd waiting = {listening_, POLLIN, 0};
            char text[100];
            sockaddr_in sender = {};
            socklen_t length = sizeof sender;
            if (poll(&waiting, 1, 20) > 0 &&
                recvfrom(listening_, text, sizeof text, 0, reinterpret_cast<sockaddr*>(&sender),
                         &length) > 0) {
                answer(sender);
            }
        }
    }

    void answer(const sockaddr_in& sender) const {
        const std::string response = wire::DISCOVERY_RESPONSE;
        for (const int handle : answering_) {
            sendto(handle, response.data(), response.size(), 0,
                   reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
        }
    }

    int listening_;
    std::vector<int> answering_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class FindServer : public testing::Test {
  protected:
    FindServer() {
        ip("link set lo up");
        ip("route add 231.232.233.235/32 dev lo");
    }

    const NetNamespace network_;
    vxlisten::Options options_;
};

TEST_F(FindServer, AServerAtAPortOfTheUsersChoiceIsFoundAtTheOneAboveIt) {
    const Servers server({"127.0.0.2"}, 7001);
    options_.port = 7000;
    options_.portChosen = true;
    ASSERT_TRUE(vxlisten::findServer(options_));
    EXPECT_EQ(options_.host, "127.0.0.2");
    EXPECT_TRUE(options_.found);
}

TEST_F(FindServer, AServerAtTheUsualPortIsFoundAlthoughTheUserNamedAnother) {
    const Servers server({"127.0.0.2"}, wire::DEFAULT_DISCOVERY_PORT);
    options_.port = 65535;
    options_.portChosen = true;
    ASSERT_TRUE(vxlisten::findServer(options_));
    EXPECT_EQ(options_.host, "127.0.0.2");
}

TEST_F(FindServer, OfSeveralServersTheFirstIsTakenAndAllAreTold) {
    const Servers servers({"127.0.0.2", "127.0.0.3"}, wire::DEFAULT_DISCOVERY_PORT);
    testing::internal::CaptureStderr();
    const bool found = vxlisten::findServer(options_);
    const std::string told = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(found);
    ASSERT_EQ(options_.others.size(), 1U) << told;
    EXPECT_NE(options_.others[0], options_.host);
    EXPECT_EQ(told.find("velantrix-listen: several servers have answered, taking the first\n" +
                        options_.host + "\t"),
              0U)
        << told;
    EXPECT_NE(told.find("\n" + options_.others[0] + "\t"), std::string::npos) << told;
}

TEST_F(FindServer, AServerThatWasThereFromTheStartIsNoNewPlaceOfALostOne) {
    const Servers servers({"127.0.0.3", "127.0.0.4"}, wire::DEFAULT_DISCOVERY_PORT);
    options_.found = true;
    options_.others = {"127.0.0.3"};
    EXPECT_EQ(vxlisten::locateAgain(options_, "127.0.0.2"), "127.0.0.4");
}

TEST(FindServerAlone, WithoutANetworkToAskInThatIsTold) {
    const NetNamespace nothing;
    vxlisten::Options options;
    testing::internal::CaptureStderr();
    const bool found = vxlisten::findServer(options);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "velantrix-listen: cannot look for servers: Network is unreachable\n");
    EXPECT_FALSE(found);
}

}  // namespace
