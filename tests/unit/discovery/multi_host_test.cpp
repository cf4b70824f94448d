// What the responder answers and prints.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/unit/discovery/multi_host_fixture.h"

namespace {

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
    const auto begin = std::chrono::steady_clock::now();
    client.send("", SERVER_ADDRESS, PORT);
    expectAlive();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    EXPECT_EQ(responder->printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
}

/// Sends a dozen queries at once; `receiver` gets the answers, no faster than ten a second.
void expectPaced(const std::string& query, const UdpClient& sender, const UdpClient& receiver) {
    constexpr int QUERIES = 12;
    for (int i = 0; i < QUERIES; ++i) {
        sender.send(query, SERVER_ADDRESS, PORT);
    }
    ASSERT_TRUE(receiver.receive(PATIENCE_MS));
    const auto first = std::chrono::steady_clock::now();
    for (int i = 1; i < QUERIES; ++i) {
        ASSERT_TRUE(receiver.receive(PATIENCE_MS));
    }
    const auto taken = std::chrono::steady_clock::now() - first;
    // The first answer may have been read a little late.
    EXPECT_GE(taken, std::chrono::milliseconds((QUERIES - 2) * 100));
}

TEST_F(RunningMultiHost, AnswersArePacedAtTenASecond) {
    const UdpClient client;
    expectPaced(SECOND_FORM, client, client);
}

TEST_F(RunningMultiHost, AnswersToTheFirstFormArePacedAtTenASecond) {
    const UdpClient client;
    const UdpClient atDiscoveryPort(PORT);
    expectPaced(FIRST_FORM, client, atDiscoveryPort);
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

/// The UDP ports other than PORT that are bound in the thread's network.
std::vector<std::uint16_t> otherBoundPorts() {
    std::ifstream table("/proc/thread-self/net/udp");
    std::string line;
    std::getline(table, line);  // The headings.
    std::vector<std::uint16_t> ports;
    while (std::getline(table, line)) {
        const std::size_t colon = line.find(':', line.find(':') + 1);
        const auto port =
            static_cast<std::uint16_t>(std::stoul(line.substr(colon + 1, 4), nullptr, 16));
        if (port != PORT) {
            ports.push_back(port);
        }
    }
    return ports;
}

TEST_F(MultiHost, HighestPortOfTheEnvironmentLetsTheSystemChooseOne) {
    addGroupRoute();
    const UdpClient holder(PORT);  // The system must choose another.
    Responder responder([] { setenv("VELANTRIX_SERVER_PORT", "65535", 1); });
    ASSERT_TRUE(responder.waitUntilListening()) << responder.reportedSoFar();
    ASSERT_EQ(otherBoundPorts().size(), 1U);
    const std::uint16_t chosen = otherBoundPorts().front();
    EXPECT_GE(chosen, 1024) << "a port of the privileged";
    clientSide.enter();
    const UdpClient client;
    for (const std::string& receiver : {SERVER_ADDRESS, GROUP}) {
        client.send(SECOND_FORM, receiver, chosen);
        const auto answer = client.receive(PATIENCE_MS);
        ASSERT_TRUE(answer) << receiver;
        EXPECT_EQ(answer->text, RESPONSE);
        EXPECT_EQ(answer->port, chosen);
    }
    EXPECT_EQ(responder.reportedSoFar(), "");
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
