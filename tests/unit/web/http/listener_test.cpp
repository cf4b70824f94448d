#include "web/http/listener.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include "tests/unit/web/web_client.h"
#include "web/upstream/live_packets.h"

namespace {

using namespace vxweb;
using boost::asio::ip::tcp;

constexpr std::int64_t SECOND = 1000000;
constexpr int SMALL_BUFFER = 4096;
constexpr std::size_t LARGE = 10000;

/// A listener over a real connection whose other side reads when the test wants it. Time is the
/// packets' own.
class ListenerTest : public testing::Test {
    boost::asio::io_context context_;
    std::shared_ptr<Connection> connection_;

  protected:
    void open(Listener::Slow slow, bool framed = true, bool small = true) {
        tcp::acceptor acceptor(context_, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
        client.emplace(acceptor.local_endpoint().port(), SMALL_BUFFER);
        tcp::socket socket(context_);
        acceptor.accept(socket);
        if (small) {
            socket.set_option(boost::asio::socket_base::send_buffer_size(SMALL_BUFFER));
        }
        connection_ = makeConnection(std::move(socket), nullptr);
        listener = std::make_shared<Listener>(connection_, slow, framed);
    }

    /// A message of `size` bytes of the letter, at this time.
    void send(char letter, std::int64_t time, std::size_t size = LARGE) {
        listener->send(makeChunk(std::string(size, letter), true, time));
        run();
    }

    void run() {
        context_.restart();
        context_.poll();
    }

    /// The letters of the chunks that the client reads up to this one.
    std::string lettersUntil(
        char last, const std::function<void()>& meanwhile = [] {}) {
        auto reading = std::async(std::launch::async, [this, last] {
            std::string result;
            for (std::string chunk = "-"; !chunk.empty() && chunk[0] != last;) {
                chunk = client->chunk();
                EXPECT_EQ(chunk, std::string(chunk.size(), chunk[0])) << "no chunk is cut";
                result.push_back(chunk[0]);
            }
            return result;
        });
        while (reading.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
            meanwhile();
            run();
        }
        return reading.get();
    }

    std::optional<WebClient> client;
    std::shared_ptr<Listener> listener;
};

TEST_F(ListenerTest, WhatIsSentArrivesInOrder) {
    open(Listener::Slow::LosesSound);
    send('a', 0, 100);
    send('b', 0, 100);
    EXPECT_EQ(client->chunk(), std::string(100, 'a'));
    EXPECT_EQ(client->chunk(), std::string(100, 'b'));
}

TEST_F(ListenerTest, APacketFromASecondThreadFailsAnAssertion) {
    open(Listener::Slow::LosesSound);
    send('a', 0, 100);
    EXPECT_DEBUG_DEATH(std::thread([this] { send('b', 0, 100); }).join(), "thread_");
}

TEST_F(ListenerTest, WithoutFramesTheContentAloneIsSent) {
    open(Listener::Slow::LosesConnection, false);
    send('a', 0, 3);
    send('b', 0, 3);
    EXPECT_EQ(client->read(6), "aaabbb");
}

TEST_F(ListenerTest, ALiveListenerWhoDoesNotReadLosesWhatIsOlderThanASecond) {
    open(Listener::Slow::LosesSound);
    for (int i = 0; i < 26; ++i) {
        send(static_cast<char>('a' + i), i * SECOND / 5);
    }
    const std::string heard = lettersUntil('z');
    EXPECT_EQ(heard.substr(heard.size() - 6), "uvwxyz");
    EXPECT_LT(heard.size(), 12U) << heard;
    EXPECT_TRUE(std::is_sorted(heard.begin(), heard.end())) << heard;
}

TEST_F(ListenerTest, LittleSoundThatTheKernelCouldKeepForLongIsLeftOutAsWell) {
    open(Listener::Slow::LosesSound, true, false);
    std::int64_t time = 0;
    const auto sendFor = [this, &time](char letter, int seconds) {
        for (const std::int64_t end = time + seconds * SECOND; time < end; time += SECOND / 20) {
            send(letter, time, 100);
        }
    };
    for (char letter = 'a'; letter < 'z'; ++letter) {
        sendFor(letter, 1);
    }
    const std::string heard = lettersUntil('z', [&sendFor] { sendFor('z', 1); });
    EXPECT_EQ(heard.back(), 'z');
    EXPECT_EQ(heard.find('p'), std::string::npos) << heard;
    EXPECT_NE(heard.find('a'), std::string::npos) << heard;
}

TEST_F(ListenerTest, ATextTakesThePlaceOfTheSoundThatWaits) {
    open(Listener::Slow::LosesSound);
    for (int i = 0; i < 10; ++i) {
        send(static_cast<char>('a' + i), 0);
    }
    listener->send(makeChunk(std::string(LARGE, 'X'), false, 0));
    send('y', 0);
    const std::string heard = lettersUntil('y');
    EXPECT_EQ(heard.substr(heard.size() - 2), "Xy");
    EXPECT_EQ(heard.find('j'), std::string::npos) << heard;
}

TEST_F(ListenerTest, WhatBelongsToTheListenerAloneIsNeverLeftOut) {
    open(Listener::Slow::LosesSound);
    for (int i = 0; i < 10; ++i) {
        send('a', 0);
    }
    bool gone = false;
    listener->sendOwn("1\r\nP\r\n", [&gone](const Error& error, std::size_t) { gone = !error; });
    send('b', 5 * SECOND);
    EXPECT_FALSE(gone);
    const std::string heard = lettersUntil('b');
    EXPECT_EQ(heard.substr(heard.size() - 2), "Pb");
    run();
    EXPECT_TRUE(gone);
}

TEST_F(ListenerTest, TheLastBytesTakeThePlaceOfTheSoundThatWaitsAndNothingFollowsThem) {
    open(Listener::Slow::LosesSound);
    for (int i = 0; i < 10; ++i) {
        send(static_cast<char>('a' + i), 0);
    }
    listener->sendLast("1\r\nZ\r\n0\r\n\r\n", [](const Error&, std::size_t) {});
    send('k', 0);
    const std::string heard = lettersUntil('Z');
    EXPECT_EQ(heard.find('j'), std::string::npos) << heard;
    listener.reset();
    EXPECT_EQ(client->read(5), "0\r\n\r\n");
}

TEST_F(ListenerTest, AStreamsListenerLosesNothingForTenSecondsAndThenTheConnection) {
    open(Listener::Slow::LosesConnection);
    for (int i = 0; i <= 10; ++i) {
        send(static_cast<char>('a' + i), i * SECOND);
    }
    EXPECT_EQ(lettersUntil('k'), "abcdefghijk");
    for (int i = 0; i <= 13; ++i) {
        send(static_cast<char>('a' + i), (20 + i) * SECOND);
    }
    EXPECT_TRUE(client->closes());
}

TEST_F(ListenerTest,
       AStreamsListenerWhoDoesNotReadLosesTheConnectionAlsoWhenTheKernelKeepsTheSound) {
    open(Listener::Slow::LosesConnection, true, false);
    for (std::int64_t time = 0; time < 20 * SECOND; time += SECOND / 20) {
        send('a', time, 500);
    }
    EXPECT_TRUE(client->closes());
}

TEST_F(ListenerTest, AStreamsListenerWhoReadsLittleKeepsItsConnection) {
    open(Listener::Slow::LosesConnection);
    for (int i = 0; i < 60; ++i) {
        send('a', i * SECOND);
        client->read(2000);
    }
    EXPECT_FALSE(client->closes(1));
}

TEST_F(ListenerTest, AStreamsListenerWhoDoesNotReadMissesWholeChunksBeyond112KiB) {
    open(Listener::Slow::LosesConnection);
    for (char letter = 'a'; letter < 'z'; ++letter) {
        send(letter, 0);
    }
    const std::string heard = lettersUntil('z', [this] { send('z', 5 * SECOND); });
    EXPECT_EQ(heard.substr(0, 10), "abcdefghij");
    EXPECT_LT(heard.size(), 20U) << heard;
}

TEST_F(ListenerTest, ALiveListenerWhoDoesNotReadLosesTheOldestBeyond112KiB) {
    open(Listener::Slow::LosesSound);
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        send(letter, 0);
    }
    const std::string heard = lettersUntil('z');
    EXPECT_EQ(heard.substr(heard.size() - 10), "qrstuvwxyz");
    EXPECT_LT(heard.size(), 20U) << heard;
}

TEST_F(ListenerTest, AHeaderMayBeOldWhenItIsSent) {
    open(Listener::Slow::LosesConnection);
    for (const std::int64_t time : {5, 10}) {  // More than the client receives without reading.
        listener->send(makeChunk(std::string(3 * LARGE, 'H'), false, time * SECOND));
        run();
    }
    send('a', 3600 * SECOND);
    send('b', 3601 * SECOND);
    EXPECT_EQ(lettersUntil('b'), "HHab");
}

TEST_F(ListenerTest, OneWhoHasGoneHarmsNobody) {
    open(Listener::Slow::LosesSound);
    client.reset();
    for (int i = 0; i < 20; ++i) {
        send('a', 0);
    }
    bool failed = false;
    listener->sendOwn("x", [&failed](const Error& error, std::size_t) { failed = !!error; });
    run();
    EXPECT_TRUE(failed);
}

}  // namespace
