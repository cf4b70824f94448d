#include "listen/client.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

#include <enet/enet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "listen/clock.h"
#include "listen/command_line.h"
#include "tests/support/child_run.h"
#include "tests/support/enet_server.h"
#include "tests/support/packets.h"
#include "tests/support/udp_socket.h"

namespace {

std::atomic<int> lookUps{0};
/// While there is one, every look-up but the main thread's waits for it.
std::shared_future<void> lookUpsHang;
const std::thread::id MAIN_THREAD = std::this_thread::get_id();

/// What a server does beside serving.
struct Habits {
    int silent = 0;         ///< So many clients stay without audio.
    int stands = 0;         ///< Milliseconds without a word, once, after a quarter of a second.
    bool replaces = false;  ///< Gives each client's place away at once.
    bool damages = false;   ///< Sends every packet without the end of its header, too.
};

/// Begins to serve on the loopback interface.
std::unique_ptr<EnetServer> serve(const Habits& habits = {}) {
    return std::make_unique<EnetServer>(0, 7, [habits, seq = 0U](EnetServer& server) mutable {
        packets::Bytes bytes = packets::raw(seq++);
        if (habits.replaces) {
            server.dropAll(wire::DISCONNECT_REPLACED);
        }
        if (server.connections() <= habits.silent) {
            return;
        }
        if (habits.stands > 0 && seq == 30) {
            std::this_thread::sleep_for(std::chrono::milliseconds(habits.stands));
        }
        server.send(bytes);
        if (habits.damages) {
            bytes.resize(wire::HEADER_LENGTH - 1);
            server.send(bytes);
        }
    });
}

/// What a server of the same protocol sends that turns a new connection down with a number.
std::string refusal(std::uint32_t data) {
    ENetProtocol command = {};
    command.header.command = ENET_PROTOCOL_COMMAND_DISCONNECT;
    command.header.channelID = 0xFF;
    command.disconnect.data = htonl(data);
    // The first of the client's connections, without a time; then the command.
    std::string datagram(2 + sizeof command.disconnect, '\0');
    std::memcpy(&datagram[2], &command, sizeof command.disconnect);
    return datagram;
}

/// Answers every datagram on the loopback interface with a refusal.
class RefusingServer : public UdpResponder {
  public:
    explicit RefusingServer(std::uint32_t data)
        : UdpResponder("127.0.0.1", 0,
                       [answer = refusal(data)](const UdpSocket& own, const Datagram& datagram) {
                           own.answer(datagram, answer);
                       }) {}

    std::uint16_t port() const { return socket().port(); }
};

vxlisten::Options optionsFor(std::uint16_t port, double seconds) {
    vxlisten::Options options;
    options.server.host = "127.0.0.1";
    options.server.port = port;
    options.play = false;
    options.quiet = true;
    options.seconds = seconds;
    return options;
}

/// A client's standard error and its status.
struct Told {
    int status;
    std::string sentence;
};

Told runClient(const vxlisten::Options& options) {
    testing::internal::CaptureStderr();
    const int status = vxlisten::Client(options).run();
    return {status, testing::internal::GetCapturedStderr()};
}

}  // namespace

extern "C" int __real_enet_address_set_host(ENetAddress* address, const char* name);

extern "C" int __wrap_enet_address_set_host(ENetAddress* address, const char* name) {
    ++lookUps;
    if (lookUpsHang.valid() && std::this_thread::get_id() != MAIN_THREAD) {
        std::shared_future<void>(lookUpsHang).wait();
    }
    return __real_enet_address_set_host(address, name);
}

TEST(Client, AConnectionThatStaysSilentIsMadeAnew) {
    const auto server = serve({1});
    const vxlisten::Options options = optionsFor(server->port(), 8);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
    EXPECT_GE(server->connections(), 2);
}

TEST(Client, AServerThatStandsStillIsToldOfOnce) {
    const auto server = serve({0, 1500});
    vxlisten::Options options = optionsFor(server->port(), 3);
    options.quiet = false;
    EXPECT_THAT(runClient(options).sentence,
                testing::MatchesRegex("velantrix-listen: no audio received for [1-2]\\.. s\n"));
}

TEST(Client, ALookUpThatHangsDoesNotHoldUpTheNextAttempt) {
    const auto server = serve({1});
    const vxlisten::Options options = optionsFor(server->port(), 8);
    std::promise<void> over;
    const int before = lookUps;
    lookUpsHang = over.get_future().share();
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
    EXPECT_EQ(lookUps - before, 2) << "the first, and one for a new address";
    over.set_value();
    lookUpsHang = {};
    EXPECT_GE(server->connections(), 2);
}

TEST(Client, TheRequestCarriesTheNameAndTheChoice) {
    const auto server = serve();
    vxlisten::Options options = optionsFor(server->port(), 0.2);
    options.choice.name = "K\u00fcche \u266b";
    options.choice.rateCode = 2;
    options.choice.reliable = true;
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
    const std::string request = server->request();
    ASSERT_GT(request.size(), wire::HEADER_LENGTH);
    EXPECT_EQ(request.substr(wire::HEADER_LENGTH), options.choice.name + '\0');
    EXPECT_EQ(request.substr(8, 4), std::string("\x81\0\0\0", 4));  // Reliable, rate code 2.
}

TEST(Client, BeingReplacedBeforeTheFirstSoundIsNoError) {
    const auto server = serve({1, 0, true});
    const vxlisten::Options options = optionsFor(server->port(), 20);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
}

TEST(Client, NoSoundAtAllIsAnError) {
    const auto server = serve({1000});
    const vxlisten::Options options = optionsFor(server->port(), 1);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_FAILURE);
}

TEST(Client, AReaderThatGoesBeforeTheFirstSoundIsNoError) {
    const auto server = serve({1000});
    vxlisten::Options options = optionsFor(server->port(), 20);
    options.toStdout = true;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const OutputTo nobody(ends[1]);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(vxlisten::Client(options).run(), vxlisten::STATUS_OK);
}

TEST(Client, AHostThatNobodyKnowsIsTold) {
    vxlisten::Options options = optionsFor(std::uint16_t{7000}, 1);
    options.server.host = std::string(300, 'x');  // Too long for a name: no look-up.
    const Told told = runClient(options);
    EXPECT_EQ(told.status, vxlisten::STATUS_FAILURE);
    EXPECT_EQ(told.sentence,
              "velantrix-listen: there is no host named '" + options.server.host + "'\n");
}

TEST(Client, AServerThatTurnsTheConnectionDownIsTold) {
    const RefusingServer server(0);
    const Told told = runClient(optionsFor(server.port(), 20));
    EXPECT_EQ(told.status, vxlisten::STATUS_FAILURE);
    EXPECT_EQ(told.sentence, "velantrix-listen: 127.0.0.1:" + std::to_string(server.port()) +
                                 " does not answer\n");
}

TEST(Client, ARefusalComesWithItsReason) {
    const RefusingServer server(77);
    vxlisten::Receiver receiver;
    ASSERT_TRUE(receiver.open());
    ASSERT_TRUE(receiver.resolve("127.0.0.1", server.port()));
    ASSERT_TRUE(receiver.connect({}));
    vxlisten::ReceiverEvent event;
    for (int i = 0; i < 2000 && event.type == vxlisten::ReceiverEvent::Type::None; ++i) {
        event = receiver.service(5);
    }
    EXPECT_EQ(event.type, vxlisten::ReceiverEvent::Type::Disconnected);
    EXPECT_EQ(event.disconnectData, 77U);
}

TEST(Client, PacketsWithADamagedHeaderAreCountedAndTheOthersHeard) {
    const auto server = serve({0, 0, false, true});
    vxlisten::Options options = optionsFor(server->port(), 1);
    options.stats = vxlisten::StatsStyle::Json;
    testing::internal::CaptureStdout();
    const int status = vxlisten::Client(options).run();
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, vxlisten::STATUS_OK);
    const std::string end = printed.substr(printed.find("\"type\":\"end\""));
    EXPECT_EQ(end.find("\"damaged\":0,"), std::string::npos) << end;
    EXPECT_EQ(end.find("\"packets\":0,"), std::string::npos) << end;
}
