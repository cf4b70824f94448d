#include "web/http/web_server.h"

#include <gtest/gtest.h>

#include "tests/unit/web/web_site.h"

namespace {

using Counts = std::vector<std::size_t>;

class WebServerTest : public WebSite {
  protected:
    void connect(int count) {
        for (int i = 0; i < count; ++i) {
            clients_.push_back(std::make_unique<WebClient>(port()));
        }
    }
    void waitForConnections(const Counts& expected) {
        waitUntil([&] { return connections() == expected; });
    }
    std::vector<std::unique_ptr<WebClient>> clients_;
};

TEST_F(WebServerTest, AFewConnectionsWakeOneThread) {
    start();
    connect(60);
    waitForConnections({60, 0});
}

TEST_F(WebServerTest, ManyConnectionsAreSharedByAllThreads) {
    start();
    connect(64);
    waitForConnections({64, 0});
    connect(20);
    waitForConnections({64, 20});
    connect(44);
    waitForConnections({64, 64});
    connect(20);
    waitForConnections({74, 74});
}

TEST_F(WebServerTest, AConnectionsPlaceIsFreeAfterItsEnd) {
    start();
    for (int round = 0; round < 2; ++round) {
        connect(60);
        waitForConnections({60, 0});
        clients_.clear();
        waitForConnections({0, 0});
    }
}

}  // namespace
