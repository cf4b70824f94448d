#include "discovery/multi_host.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fakes/net_namespace.h"
#include "tests/unit/discovery/responder.h"
#include "tests/unit/discovery/udp_client.h"

namespace {

bool refuseReuse = false;

}  // namespace

extern "C" {
int __real_setsockopt(int handle, int level, int name, const void* value, socklen_t length);
int __wrap_setsockopt(int handle, int level, int name, const void* value, socklen_t length);

/// Takes setsockopt()'s place (see the linker's --wrap): there is no other way to make the reuse
/// option fail.
int __wrap_setsockopt(int handle, int level, int name, const void* value, socklen_t length) {
    if (refuseReuse && level == SOL_SOCKET && name == SO_REUSEADDR) {
        errno = EPERM;
        return -1;
    }
    return __real_setsockopt(handle, level, name, value, length);
}
}

namespace {

constexpr std::uint16_t PORT = 59011;
constexpr int PATIENCE_MS = 5000;
constexpr int SILENCE_MS = 300;
const std::string FIRST_FORM = "VelantrixQuery";
const std::string SECOND_FORM = "VelantrixQuery2";
const std::string RESPONSE = "VelantrixResponse";
const std::string GROUP = "231.232.233.235";
const std::string SERVER_ADDRESS = "10.30.0.1";
const std::string CLIENT_ADDRESS = "10.30.0.2";

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

TEST_F(RunningMultiHost, SecondFormIsAnsweredAtTheSendersSocketFromTheDiscoveryPort) {
    const UdpClient client(40000);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    const auto answer = client.receive(PATIENCE_MS);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->text, RESPONSE);
    EXPECT_EQ(answer->text.size(), 17U);
    EXPECT_EQ(answer->host, SERVER_ADDRESS);
    EXPECT_EQ(answer->port, PORT);
    EXPECT_EQ(responder->printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
}

TEST_F(RunningMultiHost, FirstFormIsAnsweredAtTheDiscoveryPortFromAnother) {
    const UdpClient client(40000);
    const UdpClient atDiscoveryPort(PORT);
    client.send(FIRST_FORM, SERVER_ADDRESS, PORT);
    const auto answer = atDiscoveryPort.receive(PATIENCE_MS);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->text, RESPONSE);
    EXPECT_EQ(answer->host, SERVER_ADDRESS);
    EXPECT_NE(answer->port, PORT);
    EXPECT_FALSE(client.receive(SILENCE_MS));
    EXPECT_EQ(responder->printed("\n"), "Multicast received 14 bytes: VelantrixQuery\n");
}

TEST_F(RunningMultiHost, BothFormsAreAnsweredThroughTheGroup) {
    const UdpClient client;
    const UdpClient atDiscoveryPort(PORT);
    client.send(SECOND_FORM, GROUP, PORT);
    const auto second = client.receive(PATIENCE_MS);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->text, RESPONSE);
    EXPECT_EQ(second->host, SERVER_ADDRESS);
    EXPECT_EQ(second->port, PORT);

    client.send(FIRST_FORM, GROUP, PORT);
    const auto first = atDiscoveryPort.receive(PATIENCE_MS);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->text, RESPONSE);
    EXPECT_EQ(first->host, SERVER_ADDRESS);
}

TEST_F(RunningMultiHost, BroadcastQueryIsAnswered) {
    const UdpClient client;
    client.send(SECOND_FORM, "10.30.0.255", PORT);
    const auto answer = client.receive(PATIENCE_MS);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->text, RESPONSE);
}

TEST_F(RunningMultiHost, QueryWithATrailingNulIsPrintedOnly) {
    expectPrintedWithoutAnswer(SECOND_FORM + '\0', "Multicast received 16 bytes: VelantrixQuery2");
    expectPrintedWithoutAnswer(FIRST_FORM + '\0', "Multicast received 15 bytes: VelantrixQuery");
}

TEST_F(RunningMultiHost, NearMissesArePrintedOnly) {
    for (const std::string near : {"velantrixQuery2", "VelantrixQuery3", "VelantrixQuer",
                                   "VelantrixQuery2 ", " VelantrixQuery", "V"}) {
        expectPrintedWithoutAnswer(
            near, "Multicast received " + std::to_string(near.size()) + " bytes: " + near);
    }
}

TEST_F(RunningMultiHost, ResponseOfAnotherServerIsPrintedOnly) {
    expectPrintedWithoutAnswer(RESPONSE, "Multicast received 17 bytes: VelantrixResponse");
}

TEST_F(RunningMultiHost, LongDatagramIsCutAndPrintedOnly) {
    expectPrintedWithoutAnswer(std::string(300, 'x'),
                               "Multicast received 255 bytes: " + std::string(255, 'x'));
    expectPrintedWithoutAnswer(
        SECOND_FORM + std::string(65492, 'y'),
        "Multicast received 255 bytes: " + SECOND_FORM + std::string(240, 'y'));
}

TEST_F(RunningMultiHost, ControlBytesAreMaskedAndOtherBytesKept) {
    expectPrintedWithoutAnswer("\x1b[31mred\r\n\t\x7f\x01 \xc3\xa4\xff~",
                               "Multicast received 18 bytes: ?[31mred????? \xc3\xa4\xff~");
}

TEST_F(RunningMultiHost, TextEndsAtTheFirstNul) {
    expectPrintedWithoutAnswer(std::string("abc\0def", 7), "Multicast received 7 bytes: abc");
    expectPrintedWithoutAnswer(std::string("\0abc", 4), "Multicast received 4 bytes: ");
}

TEST_F(RunningMultiHost, TextOfAnEarlierDatagramDoesNotShow) {
    expectPrintedWithoutAnswer(std::string(200, 'z'),
                               "Multicast received 200 bytes: " + std::string(200, 'z'));
    expectPrintedWithoutAnswer("short", "Multicast received 5 bytes: short");
}

TEST_F(RunningMultiHost, EmptyDatagramIsPassedOverInSilence) {
    const UdpClient client;
    client.send("", SERVER_ADDRESS, PORT);
    expectAlive();
    EXPECT_EQ(responder->printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
}

TEST_F(RunningMultiHost, AnswersArePacedAtTenASecond) {
    constexpr int QUERIES = 12;
    const UdpClient client;
    for (int i = 0; i < QUERIES; ++i) {
        client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    }
    ASSERT_TRUE(client.receive(PATIENCE_MS));
    const auto first = std::chrono::steady_clock::now();
    for (int i = 1; i < QUERIES; ++i) {
        ASSERT_TRUE(client.receive(PATIENCE_MS));
    }
    const auto taken = std::chrono::steady_clock::now() - first;
    EXPECT_GE(taken, std::chrono::milliseconds((QUERIES - 2) * 100));
}

TEST_F(RunningMultiHost, SenderThatCannotBeAnsweredIsReportedAndTheNextIsServed) {
    sendWithoutSourcePort(SECOND_FORM, SERVER_ADDRESS, PORT);
    const std::string report = "multiHost: Socket sendto failed: Invalid argument\n";
    EXPECT_NE(responder->printed(report).find(report), std::string::npos);
    expectAlive();
}

TEST_F(MultiHost, PortFollowsTheEnvironment) {
    addGroupRoute();
    Responder responder([] { setenv("VELANTRIX_SERVER_PORT", "7000", 1); });
    ASSERT_TRUE(responder.waitUntilListening());
    clientSide.enter();
    const UdpClient client;
    const UdpClient atDiscoveryPort(7001);
    client.send(SECOND_FORM, GROUP, 7001);
    ASSERT_TRUE(client.receive(PATIENCE_MS));
    client.send(FIRST_FORM, GROUP, 7001);
    ASSERT_TRUE(atDiscoveryPort.receive(PATIENCE_MS));
}

TEST_F(MultiHost, AnswerThatCannotBeSentIsReported) {
    addGroupRoute();
    // Nobody can be answered at the discovery port when that is 0; the system picks the port that
    // is listened at: the only one of this network that is taken.
    Responder responder([] { setenv("VELANTRIX_SERVER_PORT", "65535", 1); });
    ASSERT_TRUE(responder.waitUntilListening());
    const UdpClient client;
    const std::string report = "multiHost: Response socket sendto failed: Invalid argument\n";
    for (std::uint32_t port = 32768; port <= 60999; ++port) {
        client.send(FIRST_FORM, "127.0.0.1", static_cast<std::uint16_t>(port));
    }
    EXPECT_NE(responder.printed(report).find(report), std::string::npos);
}

TEST_F(MultiHost, AnswerWithoutASocketIsReportedAndTheNextQueryServed) {
    addGroupRoute();
    Responder responder([] {
        const rlimit oneSocket{STDERR_FILENO + 2, STDERR_FILENO + 2};
        setrlimit(RLIMIT_NOFILE, &oneSocket);
    });
    ASSERT_TRUE(responder.waitUntilListening());
    clientSide.enter();
    const UdpClient client(PORT);
    client.send(FIRST_FORM, SERVER_ADDRESS, PORT);
    const std::string report = "multiHost: Response socket open failed: Too many open files\n";
    EXPECT_NE(responder.printed(report).find(report), std::string::npos);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    ASSERT_TRUE(client.receive(PATIENCE_MS));
}

TEST_F(MultiHost, NoSocketEndsItWithOne) {
    Responder responder([] {
        const rlimit noSocket{STDERR_FILENO + 1, STDERR_FILENO + 1};
        setrlimit(RLIMIT_NOFILE, &noSocket);
    });
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.printed("\n"), "multiHost: Socket open failed: Too many open files\n");
}

TEST_F(MultiHost, RefusedReuseOptionEndsItWithOne) {
    addGroupRoute();
    Responder responder([] { refuseReuse = true; });
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.printed("\n"),
              "multiHost: Socket reuse option failed: Operation not permitted\n");
}

TEST_F(MultiHost, PortHeldByAnotherProgramEndsItWithOne) {
    addGroupRoute();
    const UdpClient holder(PORT);
    Responder responder;
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.printed("\n"), "multiHost: Bind failed: Address already in use\n");
}

TEST_F(MultiHost, GroupWithoutARouteEndsItWithOne) {
    Responder responder;
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.printed("\n"),
              "multiHost: Socket multicast group add failed: No such device\n");
}

TEST_F(MultiHost, FailedSetUpClosesItsSocket) {
    // No route for the group: fails after the socket has been bound.
    EXPECT_EQ(multiHost(), 1);
    const UdpClient next(PORT);
}

TEST_F(MultiHost, TwoServersOfOneMachineBothListen) {
    addGroupRoute();
    Responder first;
    ASSERT_TRUE(first.waitUntilListening());
    Responder second;
    clientSide.enter();
    const UdpClient client;
    const std::string line = "Multicast received 15 bytes: VelantrixQuery2\n";
    // The second one has joined when it, too, shows a query to the group.
    for (int tries = 0; tries < 20; ++tries) {
        client.send(SECOND_FORM, GROUP, PORT);
        static_cast<void>(client.receive(SILENCE_MS));
    }
    EXPECT_NE(first.printed(line).find(line), std::string::npos);
    EXPECT_NE(second.printed(line).find(line), std::string::npos);
}

}  // namespace
