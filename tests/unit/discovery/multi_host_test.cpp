// What the responder answers and prints.

#include <chrono>
#include <fstream>
#include <vector>

#include "tests/support/named_case.h"
#include "tests/unit/discovery/multi_host_fixture.h"

namespace {

TEST_F(RunningMultiHost, SecondFormIsAnsweredAtTheSendersSocketFromTheDiscoveryPort) {
    const UdpSocket client(40000);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    EXPECT_EQ(answerAt(client).port, PORT);
    EXPECT_EQ(responder->printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
}

TEST_F(RunningMultiHost, FirstFormIsAnsweredAtTheDiscoveryPortFromAnother) {
    const UdpSocket client(40000);
    const UdpSocket atDiscoveryPort(PORT);
    client.send(FIRST_FORM, SERVER_ADDRESS, PORT);
    EXPECT_NE(answerAt(atDiscoveryPort).port, PORT);
    EXPECT_FALSE(client.receive(SILENCE_MS));
    EXPECT_EQ(responder->printed("\n"), "Multicast received 14 bytes: VelantrixQuery\n");
}

TEST_F(RunningMultiHost, BothFormsAreAnsweredThroughTheGroup) {
    const UdpSocket client;
    const UdpSocket atDiscoveryPort(PORT);
    client.send(SECOND_FORM, GROUP, PORT);
    EXPECT_EQ(answerAt(client).port, PORT);
    client.send(FIRST_FORM, GROUP, PORT);
    answerAt(atDiscoveryPort);
}

TEST_F(RunningMultiHost, BroadcastQueryIsAnswered) {
    const UdpSocket client;
    client.send(SECOND_FORM, "10.30.0.255", PORT);
    answerAt(client);
}

/// A datagram that is no query, and what is printed of it.
struct OtherDatagram : NamedCase {
    std::string datagram;
    std::string text;
};

class PrintedOnly : public RunningMultiHost, public testing::WithParamInterface<OtherDatagram> {};

TEST_P(PrintedOnly, IsNotAnswered) {
    expectPrintedWithoutAnswer(GetParam().datagram, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    MultiHost, PrintedOnly,
    testing::Values(
        OtherDatagram{"SecondFormWithATrailingNul", std::string("VelantrixQuery2\0", 16),
                      "16 bytes: VelantrixQuery2"},
        OtherDatagram{"FirstFormWithATrailingNul", std::string("VelantrixQuery\0", 15),
                      "15 bytes: VelantrixQuery"},
        OtherDatagram{"TooShort", "VelantrixQuer", "13 bytes: VelantrixQuer"},
        OtherDatagram{"BlankBefore", " VelantrixQuery", "15 bytes:  VelantrixQuery"},
        OtherDatagram{"ResponseOfAnotherServer", "VelantrixResponse",
                      "17 bytes: VelantrixResponse"},
        OtherDatagram{"TooLong", std::string(300, 'x'), "255 bytes: " + std::string(255, 'x')},
        OtherDatagram{"QueryWithTheLongestTail", "VelantrixQuery2" + std::string(65492, 'y'),
                      "255 bytes: VelantrixQuery2" + std::string(240, 'y')},
        OtherDatagram{"ControlBytesAreMasked", "\x1b[31mred\r\n\t\x7f\x01 \xc3\xa4\xff~",
                      "18 bytes: ?[31mred????? \xc3\xa4\xff~"},
        OtherDatagram{"TextEndsAtTheFirstNul", std::string("abc\0def", 7), "7 bytes: abc"},
        OtherDatagram{"NulFirst", std::string("\0abc", 4), "4 bytes: "}),
    CASE_NAME);

TEST_F(RunningMultiHost, TextOfAnEarlierDatagramDoesNotShow) {
    expectPrintedWithoutAnswer(std::string(200, 'z'), "200 bytes: " + std::string(200, 'z'));
    expectPrintedWithoutAnswer("short", "5 bytes: short");
}

TEST_F(RunningMultiHost, EmptyDatagramIsPassedOverInSilence) {
    const UdpSocket client;
    const auto begin = std::chrono::steady_clock::now();
    client.send("", SERVER_ADDRESS, PORT);
    expectAlive();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    EXPECT_EQ(responder->printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
}

class PacedAnswers : public RunningMultiHost, public testing::WithParamInterface<std::string> {};

TEST_P(PacedAnswers, ComeNoFasterThanTenASecond) {
    constexpr int QUERIES = 12;
    const UdpSocket client;
    const UdpSocket atDiscoveryPort(PORT);
    const UdpSocket& receiver = GetParam() == FIRST_FORM ? atDiscoveryPort : client;
    for (int i = 0; i < QUERIES; ++i) {
        client.send(GetParam(), SERVER_ADDRESS, PORT);
    }
    answerAt(receiver);
    const auto first = std::chrono::steady_clock::now();
    for (int i = 1; i < QUERIES; ++i) {
        answerAt(receiver);
    }
    // The first answer may have been read a little late.
    EXPECT_GE(std::chrono::steady_clock::now() - first,
              std::chrono::milliseconds((QUERIES - 2) * 100));
}

INSTANTIATE_TEST_SUITE_P(MultiHost, PacedAnswers, testing::Values(FIRST_FORM, SECOND_FORM));

TEST_F(MultiHost, PortFollowsTheEnvironment) {
    start([] { setenv("VELANTRIX_SERVER_PORT", "7000", 1); });
    const UdpSocket client;
    const UdpSocket atDiscoveryPort(7001);
    client.send(SECOND_FORM, GROUP, 7001);
    answerAt(client);
    client.send(FIRST_FORM, GROUP, 7001);
    answerAt(atDiscoveryPort);
}

/// The UDP ports other than PORT that are bound in a process's network.
std::vector<std::uint16_t> otherBoundPorts(pid_t process) {
    std::ifstream table("/proc/" + std::to_string(process) + "/net/udp");
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
    const UdpSocket holder(PORT);  // The system must choose another.
    start([] { setenv("VELANTRIX_SERVER_PORT", "65535", 1); });
    const std::vector<std::uint16_t> chosen = otherBoundPorts(responder->id());
    ASSERT_EQ(chosen.size(), 1U);
    EXPECT_GE(chosen[0], 1024) << "a port of the privileged";
    const UdpSocket client;
    for (const std::string& receiver : {SERVER_ADDRESS, GROUP}) {
        client.send(SECOND_FORM, receiver, chosen[0]);
        EXPECT_EQ(answerAt(client).port, chosen[0]) << receiver;
    }
    EXPECT_EQ(responder->reported(), "");
}

TEST_F(MultiHost, TwoServersOfOneMachineBothListen) {
    addGroupRoute();
    const Responder first;
    ASSERT_TRUE(first.waitUntilListening());
    const Responder second;
    clientSide.enter();
    const UdpSocket client;
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
