// The responder's system calls fail: what it reports, that it continues, and how fast.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "tests/support/named_case.h"
#include "tests/unit/discovery/multi_host_fixture.h"

namespace {

// Set in the responder's process only.
bool refuseReuse = false;
int receivesToFail = 0;
int sendsToFail = 0;
int handleToBeClosed = -1;

// The listening socket has the handle before it, the first that the process opens.
constexpr int RESPONSE_HANDLE = STDERR_FILENO + 2;

}  // namespace

// They take the places of the system's functions (see the linker's --wrap): there is no other way
// to make these fail.
extern "C" {
int __real_setsockopt(int handle, int level, int name, const void* value, socklen_t length);
ssize_t __real_recvfrom(int handle, void* buffer, std::size_t room, int flags, sockaddr* sender,
                        socklen_t* length);
ssize_t __real_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* receiver, socklen_t length);
ssize_t __real_write(int handle, const void* bytes, std::size_t size);

int __wrap_setsockopt(int handle, int level, int name, const void* value, socklen_t length) {
    if (refuseReuse && level == SOL_SOCKET && name == SO_REUSEADDR) {
        errno = EPERM;
        return -1;
    }
    return __real_setsockopt(handle, level, name, value, length);
}

/// Fails when a datagram has arrived, which is lost.
ssize_t __wrap_recvfrom(int handle, void* buffer, std::size_t room, int flags, sockaddr* sender,
                        socklen_t* length) {
    const ssize_t received = __real_recvfrom(handle, buffer, room, flags, sender, length);
    if (receivesToFail > 0) {
        --receivesToFail;
        errno = ENOMEM;
        return -1;
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
    start([] { receivesToFail = 1; });
    const UdpSocket client;
    const auto begin = std::chrono::steady_clock::now();
    client.send("the lost one", SERVER_ADDRESS, PORT);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    answerAt(client);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, RECEIVE_PAUSE);
    EXPECT_EQ(responder->printed("\n"), "Multicast received 15 bytes: VelantrixQuery2\n");
    EXPECT_EQ(responder->reported(), "");
}

/// A form of the query, and what a failed answer to it brings about.
struct FailedAnswer : NamedCase {
    std::string query;
    std::string report;
};

class FailedAnswers : public MultiHost, public testing::WithParamInterface<FailedAnswer> {};

TEST_P(FailedAnswers, ArePacedAndReportedWithTheirSocketClosed) {
    constexpr int FAILURES = 5;
    const bool isFirst = GetParam().query == FIRST_FORM;
    start([isFirst] {
        sendsToFail = FAILURES;
        handleToBeClosed = isFirst ? RESPONSE_HANDLE : -1;
    });
    const UdpSocket receiver(isFirst ? PORT : 0);
    const auto begin = std::chrono::steady_clock::now();
    std::string reports;
    for (int i = 0; i < FAILURES; ++i) {
        receiver.send(GetParam().query, SERVER_ADDRESS, PORT);
        reports += GetParam().report;
    }
    receiver.send(GetParam().query, SERVER_ADDRESS, PORT);
    answerAt(receiver);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, FAILURES * ANSWER_PAUSE);
    EXPECT_EQ(responder->reported(reports), reports);
}

INSTANTIATE_TEST_SUITE_P(
    MultiHost, FailedAnswers,
    testing::Values(FailedAnswer{"SecondForm", SECOND_FORM,
                                 "multiHost: Socket sendto failed: Operation not permitted\n"},
                    FailedAnswer{
                        "FirstForm", FIRST_FORM,
                        "multiHost: Response socket sendto failed: Operation not permitted\n"}),
    CASE_NAME);

TEST_F(RunningMultiHost, SenderThatCannotBeAnsweredIsReportedAndTheNextIsServed) {
    sendFromPort(0, SECOND_FORM, SERVER_ADDRESS, PORT);
    const std::string report = "multiHost: Socket sendto failed: Invalid argument\n";
    EXPECT_EQ(responder->reported(report), report);
    expectAlive();
}

TEST_F(MultiHost, AnswerWithoutASocketIsReportedAndTheNextQueryServed) {
    start([] {
        const rlimit oneSocket{STDERR_FILENO + 2, STDERR_FILENO + 2};
        setrlimit(RLIMIT_NOFILE, &oneSocket);
    });
    const UdpSocket client(PORT);
    client.send(FIRST_FORM, SERVER_ADDRESS, PORT);
    const std::string report = "multiHost: Response socket open failed: Too many open files\n";
    EXPECT_EQ(responder->reported(report), report);
    client.send(SECOND_FORM, SERVER_ADDRESS, PORT);
    answerAt(client);
}

/// What makes the set-up fail, in the child, and the report.
struct SetUpFault : NamedCase {
    void (*prepare)();
    const char* report;
};

class FailedSetUp : public MultiHost, public testing::WithParamInterface<SetUpFault> {};

TEST_P(FailedSetUp, EndsItWithOne) {
    if (GetParam().name != std::string("GroupWithoutARoute")) {
        addGroupRoute();
    }
    const ChildRun run = Responder(GetParam().prepare).wait();
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, std::string("multiHost: ") + GetParam().report + "\n");
}

void allowNoSocket() {
    const rlimit noSocket{STDERR_FILENO + 1, 1024};
    setrlimit(RLIMIT_NOFILE, &noSocket);
}

void holdPort() {
    static const UdpSocket holder(PORT);
}

INSTANTIATE_TEST_SUITE_P(
    MultiHost, FailedSetUp,
    testing::Values(
        SetUpFault{"NoSocket", allowNoSocket, "Socket open failed: Too many open files"},
        SetUpFault{"RefusedReuseOption", [] { refuseReuse = true; },
                   "Socket reuse option failed: Operation not permitted"},
        SetUpFault{"PortHeldByAnotherProgram", holdPort, "Bind failed: Address already in use"},
        SetUpFault{"GroupWithoutARoute", [] {},
                   "Socket multicast group add failed: No such device"}),
    CASE_NAME);

TEST_F(MultiHost, FailedSetUpClosesItsSocket) {
    // No route for the group: fails after the socket has been bound.
    EXPECT_EQ(multiHost(), 1);
    const UdpSocket next(PORT);
}

}  // namespace
