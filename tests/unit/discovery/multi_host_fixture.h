#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"
#include "tests/unit/discovery/responder.h"
#include "tests/unit/discovery/udp_client.h"

inline constexpr std::uint16_t PORT = 59011;
inline constexpr int PATIENCE_MS = 5000;
inline constexpr int SILENCE_MS = 300;
inline const std::string FIRST_FORM = "VelantrixQuery";
inline const std::string SECOND_FORM = "VelantrixQuery2";
inline const std::string RESPONSE = "VelantrixResponse";
inline const std::string GROUP = "231.232.233.235";
inline const std::string SERVER_ADDRESS = "10.30.0.1";
inline const std::string CLIENT_ADDRESS = "10.30.0.2";

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

    const NetNamespace clientSide;
    const NetNamespace serverSide;
};

/// As MultiHost, with a responder that listens, and the thread in the client's network.
class RunningMultiHost : public MultiHost {
  protected:
    void SetUp() override {
        addGroupRoute();
        responder = std::make_unique<Responder>();
        ASSERT_TRUE(responder->waitUntilListening());
        clientSide.enter();
    }

    /// Shows by a query that is answered that all datagrams before it have been dealt with.
    void expectAlive() const {
        const UdpClient client;
        client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
        const auto answer = client.receive(PATIENCE_MS);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->text, RESPONSE);
    }

    void expectPrintedWithoutAnswer(const std::string& datagram, const std::string& line) const {
        const UdpClient client(PORT);
        client.send(datagram, SERVER_ADDRESS, PORT);
        EXPECT_NE(responder->printed(line + "\n").find(line + "\n"), std::string::npos);
        EXPECT_FALSE(client.receive(SILENCE_MS));
        expectAlive();
    }

    std::unique_ptr<Responder> responder;
};
