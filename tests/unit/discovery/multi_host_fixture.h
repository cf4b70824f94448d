#pragma once

#include <csignal>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "discovery/multi_host.h"
#include "tests/support/child_run.h"
#include "tests/support/net_namespace.h"
#include "tests/support/udp_socket.h"
#include "tests/support/waiting.h"

inline constexpr std::uint16_t PORT = 59011;
inline constexpr int TIMEOUT_MS = 5000;
inline constexpr int SILENCE_MS = 300;
inline const std::string FIRST_FORM = "VelantrixQuery";
inline const std::string SECOND_FORM = "VelantrixQuery2";
inline const std::string RESPONSE = "VelantrixResponse";
inline const std::string GROUP = "231.232.233.235";
inline const std::string SERVER_ADDRESS = "10.30.0.1";

/// multiHost() in a child process, in the network namespace of the thread that builds this.
class Responder : public Child {
  public:
    /// `prepare` runs in the child first (environment, limits).
    explicit Responder(const std::function<void()>& prepare = [] {})
        : Child([&prepare] {
              for (int handle = STDERR_FILENO + 1; handle < 1024; ++handle) {
                  close(handle);
              }
              prepare();
              std::signal(SIGTERM, [](int) { _exit(0); });
              _exit(multiHost());
          }) {}

    /// Waits until the group has been joined; false when that does not come within seconds.
    [[nodiscard]] bool waitUntilListening() const {
        return waitUntil([this] {
            std::ifstream memberships("/proc/" + std::to_string(id()) + "/net/igmp");
            const std::string text{std::istreambuf_iterator<char>(memberships), {}};
            return text.find("EBE9E8E7") != std::string::npos;  // The group.
        });
    }
};

/// The server's network and a client's, joined by one cable. The thread starts in the server's.
class MultiHost : public testing::Test {
  protected:
    MultiHost() {
        ip("link set lo up");
        ip("link add cable type veth peer name far");
        ip("link set far netns " + clientSide.path());
        ip("addr add 10.30.0.1/24 brd + dev cable");
        ip("link set cable up");
        clientSide.enter();
        ip("addr add 10.30.0.2/24 brd + dev far");
        ip("link set far up");
        ip("route add 231.232.233.235/32 dev far");
        serverSide.enter();
    }

    static void addGroupRoute() { ip("route add 231.232.233.235/32 dev cable"); }

    /// Starts a responder that listens, and moves the thread to the client's network.
    void start(const std::function<void()>& prepare = [] {}) {
        addGroupRoute();
        responder = std::make_unique<Responder>(prepare);
        ASSERT_TRUE(responder->waitUntilListening()) << responder->reported();
        clientSide.enter();
    }

    /// The server's next answer at a socket.
    static Datagram answerAt(const UdpSocket& client) {
        const auto answer = client.receive(TIMEOUT_MS);
        EXPECT_TRUE(answer) << "no answer";
        EXPECT_EQ(answer.value_or(Datagram{}).text, RESPONSE);
        EXPECT_EQ(answer.value_or(Datagram{}).host, SERVER_ADDRESS);
        return answer.value_or(Datagram{});
    }

    /// Shows by a query that is answered that all datagrams before it have been dealt with.
    static void expectAlive() {
        const UdpSocket client;
        client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
        answerAt(client);
    }

    const NetNamespace clientSide;
    const NetNamespace serverSide;
    std::unique_ptr<Responder> responder;
};

/// As MultiHost, with a responder that listens, and the thread in the client's network.
class RunningMultiHost : public MultiHost {
  protected:
    void SetUp() override { start(); }

    void expectPrintedWithoutAnswer(const std::string& datagram, const std::string& text) const {
        const std::string line = "Multicast received " + text + "\n";
        const UdpSocket client(PORT);
        client.send(datagram, SERVER_ADDRESS, PORT);
        EXPECT_NE(responder->printed(line).find(line), std::string::npos);
        EXPECT_FALSE(client.receive(SILENCE_MS));
        expectAlive();
    }
};
