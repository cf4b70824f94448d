#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/enet_server.h"
#include "tests/support/packets.h"
#include "tests/unit/web/web_client.h"
#include "web/http/session.h"
#include "web/http/web_server.h"
#include "web/options.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

/// A web server with two workers on the loopback interface.
class WebSite : public testing::Test {
  protected:
    /// To be changed before start().
    vxweb::Options options;
    std::string login;

    WebSite();
    ~WebSite() override;

    void start();
    /// Ends all sessions, as at the end of the program.
    void shutDown();

    [[nodiscard]] std::uint16_t port() const { return server_->port(); }

    /// The number of connections that each worker serves.
    [[nodiscard]] std::vector<std::size_t> connections() const;
    /// /status as it is now.
    std::string status();
    /// Waits until /status contains `part`; fails the test after some seconds.
    void waitForStatus(const std::string& part);
    /// Waits until it is so; fails the test after some seconds.
    static void waitUntil(const std::function<bool()>& done);
    /// Waits until these rate codes were requested from the server.
    void waitForAsked(const std::vector<std::uint32_t>& codes);

    /// Sends raw sound for a while, at its pace.
    void playFor(int milliseconds);

    /// A listener to /live with this query, whose handshake is done.
    std::unique_ptr<WebClient> live(const std::string& query = {}, int receiveBuffer = 0);

    /// A server that sends what the test gives it.
    static std::unique_ptr<EnetServer> serve(std::uint16_t port = 0) {
        return std::make_unique<EnetServer>(port, 2);
    }
    std::unique_ptr<EnetServer> upstream = serve();

  private:
    std::uint32_t seq_ = 1000;
    vxweb::Workers workers_;
    std::unique_ptr<vxweb::Station> station_;
    std::unique_ptr<vxweb::WebServer> server_;
    std::unique_ptr<vxweb::Site> site_;
    std::vector<std::thread> threads_;
};
