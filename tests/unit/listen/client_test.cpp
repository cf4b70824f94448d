#include "listen/client.h"

#include <atomic>
#include <future>
#include <thread>
#include <unistd.h>

#include <enet/enet.h>
#include <gtest/gtest.h>

#include "listen/clock.h"
#include "listen/command_line.h"
#include "tests/unit/listen/packets.h"

namespace {

/// A server on the loopback interface that leaves its first `silent` clients without audio.
class TestServer {
  public:
    explicit TestServer(int silent, bool replaces = false) : silent_(silent), replaces_(replaces) {
        enet_initialize();
        ENetAddress address = {};
        enet_address_set_host(&address, "127.0.0.1");
        host_ = enet_host_create(&address, 4, 2, 0, 0);
        port = host_->address.port;
        thread_ = std::thread([this] { run(); });
    }
    ~TestServer() {
        stop_ = true;
        thread_.join();
        enet_host_destroy(host_);
        enet_deinitialize();
    }

    std::uint16_t port = 0;
    std::atomic<int> clients{0};

  private:
    void run() {
        std::uint32_t seq = 0;
        while (!stop_) {
            ENetEvent event = {};
            while (enet_host_service(host_, &event, 0) > 0) {
                handle(event);
            }
            const packets::Bytes bytes = packets::raw(seq++);
            if (listening_ != nullptr) {
                enet_peer_send(
                    listening_, 0,
                    enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(7));
        }
    }

    void handle(const ENetEvent& event) {
        if (event.type == ENET_EVENT_TYPE_CONNECT) {
            if (replaces_) {
                enet_peer_disconnect(event.peer, wire::DISCONNECT_REPLACED);
            }
            listening_ = ++clients > silent_ ? event.peer : nullptr;
        } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
            listening_ = event.peer == listening_ ? nullptr : listening_;
        } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            enet_packet_destroy(event.packet);
        }
    }

    int silent_;
    bool replaces_;  ///< Gives each client's place away at once.
    ENetHost* host_ = nullptr;
    ENetPeer* listening_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
};

vxlisten::Options optionsFor(const TestServer& server, double seconds) {
    vxlisten::Options options;
    options.host = "127.0.0.1";
    options.port = server.port;
    options.play = false;
    options.quiet = true;
    options.seconds = seconds;
    return options;
}

}  // namespace

TEST(Client, AConnectionThatStaysSilentIsMadeAnew) {
    TestServer server(1);
    const vxlisten::Options options = optionsFor(server, 8);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
    EXPECT_GE(server.clients, 2);
}

TEST(Client, AConnectionWithSoundIsKept) {
    TestServer server(0);
    const vxlisten::Options options = optionsFor(server, 5);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
    EXPECT_EQ(server.clients, 1);
}

TEST(Client, ALookUpThatHangsDoesNotHoldUpTheNextAttempt) {
    TestServer server(1);
    const vxlisten::Options options = optionsFor(server, 8);
    std::promise<void> over;
    auto lookUps = std::make_shared<std::atomic<int>>(0);
    const auto hang = [lookUps, wait = over.get_future().share()](const vxlisten::Options&,
                                                                  const std::string&) {
        ++*lookUps;
        wait.wait();
        return std::string();
    };
    EXPECT_EQ(vxlisten::Client(options, hang).run(), vxlisten::STATUS_OK);
    over.set_value();
    EXPECT_GE(server.clients, 2);
    EXPECT_EQ(*lookUps, 1);
}

TEST(Client, BeingReplacedBeforeTheFirstSoundIsNoError) {
    TestServer server(1, true);
    const vxlisten::Options options = optionsFor(server, 20);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
}

TEST(Client, NoSoundAtAllIsAnError) {
    TestServer server(1000);
    const vxlisten::Options options = optionsFor(server, 1);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_FAILURE);
}

TEST(Client, AReaderThatGoesBeforeTheFirstSoundIsNoError) {
    TestServer server(1000);
    vxlisten::Options options = optionsFor(server, 20);
    options.toStdout = true;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int saved = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    const int status = vxlisten::Client(options).run();
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_EQ(status, vxlisten::STATUS_OK);
}
