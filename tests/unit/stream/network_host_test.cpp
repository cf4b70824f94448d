#include "stream/network_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/command_line.h"
#include "app/base/core_pin.h"
#include "stream/capture_rate.h"
#include "stream/client_table.h"
#include "stream/enet_mtu.h"
#include "stream/opus_bank.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/support/child_run.h"
#include "tests/support/fake_portaudio.h"
#include "tests/support/named_case.h"
#include "tests/support/udp_socket.h"
#include "tests/support/waiting.h"

namespace {

/// Whether the system refuses the filter that limits datagrams.
bool filterRefused = false;

}  // namespace

extern "C" {

bool __real__Z14limitDatagramsRK9_ENetHost(const ENetHost& host);

// limitDatagrams(): the name is the linker's.
bool __wrap__Z14limitDatagramsRK9_ENetHost(const ENetHost& host) {
    if (filterRefused) {
        errno = ENOMEM;
        return false;
    }
    return __real__Z14limitDatagramsRK9_ENetHost(host);
}
}

namespace {

using Arguments = std::vector<const char*>;

const char* const INITIALIZING = "Initializing server network communication\n";
const char* const DEFAULT_PORT = "Using default port number 59010\n";
const char* const CAPTURE =
    "Initializing PortAudio\n"
    "PortAudio reported default input device sample rate is 48000 (may not be accurate)\n"
    "Audio stream info: sample rate = 48000, input latency = 0.025 sec\n"
    "Audio input device opened successfully\n";
const char* const CREATION_FAILED =
    "An error occurred while creating network server host, network port may be busy (try "
    "rebooting)";

/// Runs the network host with these arguments in a child until it sleeps, then `body`.
ChildRun runHost(const Arguments& arguments, const std::function<void()>& prepare = nullptr,
                 const std::function<void()>& body = nullptr) {
    return runChild([&] {
        Arguments argv{"VelantrixServer"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        scanArguments(static_cast<int>(argv.size()), argv.data());
        unsetenv("VELANTRIX_SERVER_SAMPLE_RATE");
        if (prepare) {
            prepare();
        }
        auto* const core = new VelantrixServerNoGUI;
        std::thread([core] { enetHost(core); }).detach();
        waitUntil(fakePortAudio().started);
        EXPECT_EQ(mainDialog.load(), core);
        usleep(50000);  // For the last line.
        if (body) {
            body();
        }
    });
}

TEST(NetworkHost, StartsOnTheDefaultPortThenOpensTheCapture) {
    const ChildRun run = runHost({}, nullptr, [] {
        EXPECT_EQ(server->address.port, 59010);
        EXPECT_EQ(server->address.host, ENET_HOST_ANY);
        EXPECT_EQ(server->peerCount, 32U);
        EXPECT_EQ(server->channelLimit, 2U);
        EXPECT_EQ(server->incomingBandwidth, 0U);
        EXPECT_EQ(server->outgoingBandwidth, 0U);
        EXPECT_GE(server->mtu, 1400U);
        EXPECT_NE(opusEnc[1], nullptr);
        EXPECT_TRUE(getVxOptionAltRate());
    });
    EXPECT_EQ(run.out, std::string(INITIALIZING) + DEFAULT_PORT + CAPTURE);
    EXPECT_EQ(run.err, "");
}

int sendBufferOf(int socket) {
    int bytes = 0;
    socklen_t length = sizeof bytes;
    EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, &length), 0);
    return bytes;
}

TEST(NetworkHost, SendBufferHoldsWhatWaitsForTenAddressesIfTheKernelGrantsThat) {
    constexpr int FOR_ONE_ADDRESS = 212992;
    runHost({}, nullptr, [] {
        const int greedy = socket(AF_INET, SOCK_DGRAM, 0);
        const int plenty = 100 * FOR_ONE_ADDRESS;
        setsockopt(greedy, SOL_SOCKET, SO_SNDBUF, &plenty, sizeof plenty);
        EXPECT_GE(sendBufferOf(server->socket),
                  std::min(10 * FOR_ONE_ADDRESS, sendBufferOf(greedy)));
        close(greedy);
    });
}

TEST(NetworkHost, ClearsTheTableFirst) {
    runHost(
        {},
        [] {
            for (ClientSlot& slot : clientConn) {
                slot.protocolVersion = 9;
                slot.dataRequested = 1;
            }
        },
        [] {
            for (const ClientSlot& slot : clientConn) {
                EXPECT_EQ(slot.protocolVersion, 0U);
                EXPECT_EQ(slot.dataRequested, 0);
            }
        });
}

TEST(NetworkHost, CreatesTheEncodersBeforeTheNetwork) {
    const ChildRun run = runHost(
        {}, [] { failCall(Call::OpusEncoderCreate, 2, -7); },
        [] {
            const std::vector<std::string> log = callLog();
            ASSERT_GE(log.size(), 6U);
            EXPECT_EQ(log[3], "opus_encoder_create");
            EXPECT_EQ(log[4], "enet_initialize");
            EXPECT_EQ(log[5], "enet_host_create");
        });
    EXPECT_EQ(run.out.rfind("Warning, could not initialize Opus encoder 2 (memory allocation "
                            "failed)\n" +
                                std::string(INITIALIZING),
                            0),
              0U)
        << run.out;
}

/// A port setting and what is bound.
struct PortCase : NamedCase {
    const char* argument;
    int port;
    const char* line;
};

class HostPort : public testing::TestWithParam<PortCase> {};

TEST_P(HostPort, IsBoundAndPrinted) {
    const PortCase& expected = GetParam();
    const ChildRun run = runHost({"-p", expected.argument}, nullptr,
                                 [&expected] { EXPECT_EQ(server->address.port, expected.port); });
    EXPECT_EQ(run.out, std::string(INITIALIZING) + expected.line + CAPTURE);
}

INSTANTIATE_TEST_SUITE_P(
    NetworkHost, HostPort,
    testing::Values(PortCase{"Chosen", "6000", 6000, "Binding to port number 6000\n"},
                    PortCase{"Highest", "65535", 65535, "Binding to port number 65535\n"},
                    PortCase{"Zero", "0", 59010, "Using default port number 59010\n"},
                    PortCase{"LowBitsZero", "65536", 59010, "Using default port number 59010\n"},
                    PortCase{"OnlyTheLowBits", "71536", 6000, "Binding to port number 6000\n"},
                    PortCase{"Negative", "-1", 65535, "Binding to port number 65535\n"}),
    CASE_NAME);

TEST(NetworkHost, BindsToAChosenAddress) {
    const ChildRun run = runHost({"-b", "127.0.0.1"}, nullptr,
                                 [] { EXPECT_EQ(server->address.host, inet_addr("127.0.0.1")); });
    EXPECT_EQ(run.out, std::string(INITIALIZING) + "Binding server to address '127.0.0.1'\n" +
                           DEFAULT_PORT + CAPTURE);
}

TEST(NetworkHost, BindsToAHostName) {
    runHost({"-b", "localhost"}, nullptr,
            [] { EXPECT_EQ(server->address.host, inet_addr("127.0.0.1")); });
}

TEST(NetworkHost, UnresolvableAddressIsWarnedOfAndForgotten) {
    for (const std::string& address :
         {std::string("no.such.host.invalid"), std::string("x.invalid") + std::string(46, 'y')}) {
        const ChildRun run = runHost({"-b", address.c_str()}, nullptr, [] {
            EXPECT_EQ(server->address.host, ENET_HOST_ANY);
            EXPECT_STREQ(getCmdBindAddr(), "");
        });
        // The message ends its own line and is printed as a line: an empty one follows.
        EXPECT_EQ(run.out,
                  std::string(INITIALIZING) + "Binding server to address '" + address +
                      "'\nWarning, could not bind server to address '" + address.substr(0, 50) +
                      "' check environment variable VELANTRIX_SERVER_BINDADDR and/or command line "
                      "parameter. Using INADDR_ANY.\n\n" +
                      DEFAULT_PORT + CAPTURE);
    }
}

/// The failing call, and the output after the first line.
struct FatalStart : NamedCase {
    std::string address;  ///< To bind to; empty: any.
    void (*prepare)();
    std::string out;
};

class FatalStarts : public testing::TestWithParam<FatalStart> {};

TEST_P(FatalStarts, EndTheProcess) {
    const FatalStart& start = GetParam();
    const ChildRun run =
        runHost(start.address.empty() ? Arguments{} : Arguments{"-b", start.address.c_str()},
                start.prepare);
    EXPECT_EQ(run.out, INITIALIZING + start.out);
    EXPECT_EQ(run.status, 255);
}

void refuseHost() {
    failCall(Call::EnetHostCreate, 1, EACCES);
}

/// The message shows 50 characters of the address.
std::string refusedAt(const std::string& address) {
    return "Binding server to address '" + address + "'\n" + DEFAULT_PORT + CREATION_FAILED +
           " or could not bind server to address '" + address.substr(0, 50) +
           "' (check environment variable VELANTRIX_SERVER_BINDADDR and/or command line "
           "parameter)\n\n";
}

/// Leading zeros make a long address that can be resolved.
const std::string LONG_ADDRESS = std::string(51, '0') + "177.0.0.1";

INSTANTIATE_TEST_SUITE_P(
    NetworkHost, FatalStarts,
    testing::Values(
        FatalStart{"FailedInitialisation", "", [] { failCall(Call::EnetInitialize, 1, -1); },
                   "An error occurred while initializing network communication\n"},
        FatalStart{"BusyPort", "", [] { static const UdpSocket other(59010); },
                   std::string(DEFAULT_PORT) +
                       "Network port busy (another Velantrix Server may already be running)\n"},
        FatalStart{"OtherFailure", "", refuseHost,
                   std::string(DEFAULT_PORT) + CREATION_FAILED + "\n"},
        FatalStart{"SocketThatWouldHangTheAudio", "",
                   [] { failCall(Call::EnetSocketSetOption, 1, ENOBUFS); },
                   std::string(DEFAULT_PORT) + CREATION_FAILED + "\n"},
        FatalStart{"OtherFailureWithAnAddress", "127.0.0.1", refuseHost, refusedAt("127.0.0.1")},
        FatalStart{"OtherFailureWithALongAddress", LONG_ADDRESS, refuseHost,
                   refusedAt(LONG_ADDRESS)}),
    CASE_NAME);

TEST(NetworkHost, RefusedLimitOfDatagramsIsWarnedOfAndTheServerGoesOn) {
    const ChildRun run = runHost({}, [] { filterRefused = true; });
    EXPECT_EQ(run.out, std::string(INITIALIZING) + DEFAULT_PORT +
                           "Warning, could not limit the length of datagrams, err = 12\n" +
                           CAPTURE);
}

TEST(NetworkHost, FailureAfterAnUnresolvableAddressDoesNotNameItAgain) {
    const ChildRun run =
        runHost({"-b", "no.such.host.invalid"}, [] { failCall(Call::EnetHostCreate, 1, EACCES); });
    EXPECT_EQ(run.out.substr(run.out.find(DEFAULT_PORT)),
              std::string(DEFAULT_PORT) + CREATION_FAILED + "\n");
    EXPECT_EQ(run.status, 255);
}

TEST(NetworkHost, WithoutACaptureItGoesOnAndServicesNothing) {
    const ChildRun run = runChild([] {
        const char* argv[] = {"VelantrixServer"};
        scanArguments(1, argv);
        fakePortAudio().openResult = paDeviceUnavailable;
        auto* const core = new VelantrixServerNoGUI;
        std::thread([core] { enetHost(core); }).detach();
        usleep(700000);
        EXPECT_EQ(countOf(Call::EnetHostCreate), 1);
        EXPECT_EQ(countOf(Call::EnetHostService), 0);
        EXPECT_FALSE(getVxOptionAltRate());
    });
    EXPECT_EQ(run.err,
              "An error occured while opening the portaudio stream\n"
              "Error message: Device unavailable\n"
              "Error -9985 opening audio input device\n");
    EXPECT_EQ(run.out.find("opened successfully"), std::string::npos);
    EXPECT_EQ(run.status, 0);
}

CHILD_TEST(NetworkHost, QuitThatWasFasterKeepsItsReportTarget) {
    const char* argv[] = {"VelantrixServer"};
    scanArguments(1, argv);
    auto* const everlasting = new VelantrixServerNoGUI;
    auto* const core = new VelantrixServerNoGUI;
    mainDialog.store(everlasting);
    std::thread([core] { enetHost(core); }).detach();
    waitUntil(fakePortAudio().started);
    EXPECT_EQ(mainDialog.load(), everlasting);
}

TEST(NetworkHost, SmallDatagramsAreEnlargedAndLargeOnesLeftAlone) {
    ENetHost host = {};
    host.mtu = AUDIO_MTU - 8;
    raiseHostMtu(host);
    EXPECT_EQ(host.mtu, AUDIO_MTU);
    host.mtu = AUDIO_MTU + 1;
    raiseHostMtu(host);
    EXPECT_EQ(host.mtu, AUDIO_MTU + 1);
}

}  // namespace
