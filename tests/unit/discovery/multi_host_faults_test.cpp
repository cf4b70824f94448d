// The responder's system calls fail: what it reports, that it goes on, and how fast.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "discovery/multi_host.h"
#include "tests/unit/discovery/multi_host_fixture.h"

namespace {

// Set in the responder's process only.
bool refuseReuse = false;
int receivesToFail = 0;
int sendsToFail = 0;
bool noDescriptorAfterReceive = false;
int handleToBeClosed = -1;

// The listening socket has the handle before it, the first that the process opens.
constexpr int RESPONSE_HANDLE = STDERR_FILENO + 2;

}  // namespace

// They take the places of the system's functions (see the linker's --wrap): there is no other way
// to make these fail.
extern "C" {
int __real_setsockopt(int handle, int level, int name, const void* value, socklen_t length);
int __wrap_setsockopt(int handle, int level, int name, const void* value, socklen_t length);
ssize_t __real_recvfrom(int handle, void* buffer, std::size_t room, int flags, sockaddr* sender,
                        socklen_t* length);
ssize_t __wrap_recvfrom(int handle, void* buffer, std::size_t room, int flags, sockaddr* sender,
                        socklen_t* length);
ssize_t __real_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* receiver, socklen_t length);
ssize_t __wrap_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* receiver, socklen_t length);
ssize_t __real_write(int handle, const void* bytes, std::size_t size);
ssize_t __wrap_write(int handle, const void* bytes, std::size_t size);

int __wrap_setsockopt(int handle, int level, int name, const void* value, socklen_t length) {
    if (refuseReuse && level == SOL_SOCKET && name == SO_REUSEADDR) {
        errno = EPERM;
        return -1;
    }
    return __real_setsockopt(handle, level, name, value, length);
}

/// Fails when a datagram has come, which is lost.
ssize_t __wrap_recvfrom(int handle, void* buffer, std::size_t room, int flags, sockaddr* sender,
                        socklen_t* length) {
    const ssize_t received = __real_recvfrom(handle, buffer, room, flags, sender, length);
    if (receivesToFail > 0) {
        --receivesToFail;
        errno = ENOMEM;
        return -1;
    }
    if (noDescriptorAfterReceive) {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    return received;
}

ssize_t __wrap_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* receiver, socklen_t length) {
    if (sendsToFail > 0) {
        --sendsToFail;
        errno = EPERM;
        return -1;
    }
    return __real_sendto(handle, bytes, size, flags, receiver, length);
}

ssize_t __wrap_write(int handle, const void* bytes, std::size_t size) {
    if (handle == STDERR_FILENO && handleToBeClosed >= 0 && fcntl(handleToBeClosed, F_GETFD) >= 0) {
        std::fputs("(socket still open) ", stderr);
    }
    return __real_write(handle, bytes, size);
}
}

namespace {

constexpr auto RECEIVE_PAUSE = std::chrono::milliseconds(500);
constexpr auto ANSWER_PAUSE = std::chrono::milliseconds(100);

TEST_F(MultiHost, FailedReceiveIsPassedOverInSilenceAfterAPause) {
    addGroupRoute();
    Responder responder([] { receivesToFail = 1; });
    ASSERT_TRUE(responder.waitUntilListening());
    clientSide.enter();
    const UdpClient client;
    const auto begin = std::chrono::steady_clock::now();
    client.send("the lost one", SERVER_ADDRESS, PORT);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    ASSERT_TRUE(client.receive(PATIENCE_MS));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, RECEIVE_PAUSE);
    EXPECT_EQ(responder.printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
    EXPECT_EQ(responder.reportedSoFar(), "");
}

/// Queries whose answers cannot be sent, then one whose answer comes, at `receiver`.
void expectPacedFailures(Responder& responder, const std::string& query, const UdpClient& receiver,
                         const std::string& report) {
    constexpr int FAILURES = 5;
    const UdpClient client;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < FAILURES; ++i) {
        client.send(query, SERVER_ADDRESS, PORT);
    }
    const UdpClient& last = query == FIRST_FORM ? client : receiver;
    last.send(query, SERVER_ADDRESS, PORT);
    ASSERT_TRUE(receiver.receive(PATIENCE_MS));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, FAILURES * ANSWER_PAUSE);
    std::string reports;
    for (int i = 0; i < FAILURES; ++i) {
        reports += report;
    }
    EXPECT_EQ(responder.reported(reports), reports);
}

TEST_F(MultiHost, FailedAnswersArePacedAndReported) {
    addGroupRoute();
    Responder responder([] { sendsToFail = 5; });
    ASSERT_TRUE(responder.waitUntilListening());
    clientSide.enter();
    expectPacedFailures(responder, SECOND_FORM, UdpClient(),
                        "multiHost: Socket sendto failed: Operation not permitted\n");
}

TEST_F(MultiHost, FailedAnswersToTheFirstFormArePacedAndReportedWithTheirSocketClosed) {
    addGroupRoute();
    Responder responder([] {
        sendsToFail = 5;
        handleToBeClosed = RESPONSE_HANDLE;
    });
    ASSERT_TRUE(responder.waitUntilListening());
    clientSide.enter();
    expectPacedFailures(responder, FIRST_FORM, UdpClient(PORT),
                        "multiHost: Response socket sendto failed: Operation not permitted\n");
}

TEST_F(MultiHost, NoSocketForTheAnswerToTheFirstFormIsReportedAndTheSecondIsAnswered) {
    addGroupRoute();
    Responder responder([] { noDescriptorAfterReceive = true; });
    ASSERT_TRUE(responder.waitUntilListening());
    clientSide.enter();
    const UdpClient client;
    client.send(FIRST_FORM, SERVER_ADDRESS, PORT);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    EXPECT_TRUE(client.receive(PATIENCE_MS));
    EXPECT_EQ(responder.reported("\n"),
              "multiHost: Response socket open failed: Too many open files\n");
}

TEST_F(RunningMultiHost, SenderThatCannotBeAnsweredIsReportedAndTheNextIsServed) {
    sendWithoutSourcePort(SECOND_FORM, SERVER_ADDRESS, PORT);
    const std::string report = "multiHost: Socket sendto failed: Invalid argument\n";
    EXPECT_NE(responder->reported(report).find(report), std::string::npos);
    expectAlive();
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
    EXPECT_NE(responder.reported(report).find(report), std::string::npos);
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
    EXPECT_NE(responder.reported(report).find(report), std::string::npos);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    ASSERT_TRUE(client.receive(PATIENCE_MS));
}

TEST_F(MultiHost, NoSocketEndsItWithOne) {
    Responder responder([] {
        const rlimit noSocket{STDERR_FILENO + 1, 1024};
        setrlimit(RLIMIT_NOFILE, &noSocket);
    });
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.reported("\n"), "multiHost: Socket open failed: Too many open files\n");
}

TEST_F(MultiHost, RefusedReuseOptionEndsItWithOne) {
    addGroupRoute();
    Responder responder([] { refuseReuse = true; });
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.reported("\n"),
              "multiHost: Socket reuse option failed: Operation not permitted\n");
}

TEST_F(MultiHost, PortHeldByAnotherProgramEndsItWithOne) {
    addGroupRoute();
    const UdpClient holder(PORT);
    Responder responder;
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.reported("\n"), "multiHost: Bind failed: Address already in use\n");
}

TEST_F(MultiHost, GroupWithoutARouteEndsItWithOne) {
    Responder responder;
    EXPECT_EQ(responder.waitForResult(), 1);
    EXPECT_EQ(responder.reported("\n"),
              "multiHost: Socket multicast group add failed: No such device\n");
}

TEST_F(MultiHost, FailedSetUpClosesItsSocket) {
    // No route for the group: fails after the socket has been bound.
    EXPECT_EQ(multiHost(), 1);
    const UdpClient next(PORT);
}

}  // namespace
