#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "stream/wire_format.h"
#include "tests/unit/web/web_site.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int SMALL_BUFFER = 4096;
const std::string PCM = R"({"format":"pcm","sampleRate":48000,"channels":2,"title":"Kitchen"})";
const std::string OPUS = R"({"format":"opus","sampleRate":48000,"channels":2,"title":"Kitchen"})";
const std::string WAITING = R"({"state":"waiting"})";

class LiveTest : public WebSite {
  protected:
    /// Number, frames and payload as a binary message has them.
    static std::string message(std::uint32_t seq, std::uint32_t frames,
                               const packets::Bytes& packet) {
        std::string result(8, '\0');
        wire::writeU32(reinterpret_cast<unsigned char*>(result.data()), seq);
        wire::writeU32(reinterpret_cast<unsigned char*>(&result[4]), frames);
        return result.append(packet.begin() + wire::HEADER_LENGTH, packet.end());
    }

    /// A listener whose feed is connected.
    std::unique_ptr<WebClient> listener(const std::string& query, std::uint32_t code,
                                        int receiveBuffer = 0) {
        auto client = live(query, receiveBuffer);
        waitForAsked({code});
        return client;
    }
};

TEST_F(LiveTest, RawSoundComesAsTheServerSentItBehindItsFormat) {
    start();
    const auto client = listener("", 0);
    upstream->send(packets::raw(7));
    upstream->send(packets::raw(9, 500));
    EXPECT_EQ(client->text(), PCM);
    EXPECT_EQ(client->frame().content, message(7, 338, packets::raw(7)));
    EXPECT_EQ(client->frame().content, message(9, 338, packets::raw(9, 500)));
}

TEST_F(LiveTest, SoundWithItsArrivalTellsEachRoundTripToTheServerOnce) {
    start();
    const auto client = listener("?arrivals=1", 0);
    upstream->send(packets::raw(0));
    EXPECT_EQ(client->text(), PCM);
    std::vector<std::uint32_t> trips;
    for (std::uint32_t seq = 1; seq <= 400; ++seq) {
        upstream->send(packets::raw(seq));
        const std::string content = client->frame().content;
        trips.push_back(wire::readU32(reinterpret_cast<const unsigned char*>(content.data()),
                                      content.size(), 16));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const auto told = std::count_if(trips.begin(), trips.end(), [](auto trip) { return trip > 0; });
    EXPECT_GT(told, 2);
    EXPECT_LT(told, 100);
    EXPECT_LT(*std::max_element(trips.begin(), trips.end()), 5'000'000u);
}

TEST_F(LiveTest, OpusPacketsComeUntouched) {
    start();
    const auto client = listener("?format=opus&rate=64", 1);
    packets::OpusStream stream(1, 100);
    const packets::Bytes packet = stream.next();
    upstream->send(packet);
    EXPECT_EQ(client->text(), OPUS);
    EXPECT_EQ(client->frame().content, message(100, 480, packet));
}

TEST_F(LiveTest, ABlockThatTheServerCouldNotEncodeCountsAsLost) {
    start();
    const auto client = listener("?format=opus", 2);
    packets::OpusStream stream(2, 0);
    upstream->send(stream.next());
    upstream->send(packets::make(1, wire::makeFlags(true, true, 2), packets::Bytes(1920)));
    stream.next();
    upstream->send(stream.next());
    EXPECT_EQ(client->text(), OPUS);
    EXPECT_EQ(client->frame().content[0], 0);
    EXPECT_EQ(client->frame().content[0], 2);
}

TEST_F(LiveTest, WhoComesLaterGetsTheFormatFirst) {
    start();
    const auto first = listener("", 0);
    upstream->send(packets::raw(0));
    EXPECT_EQ(first->text(), PCM);
    const auto second = live();
    const auto third = live();  // Each worker has one at least.
    EXPECT_EQ(second->text(), PCM);
    EXPECT_EQ(third->text(), PCM);
    upstream->send(packets::raw(1));
    EXPECT_EQ(second->frame().content, message(1, 338, packets::raw(1)));
    EXPECT_EQ(third->frame().content, message(1, 338, packets::raw(1)));
}

TEST_F(LiveTest, AChangeOfTheServersRateIsSaidBeforeItsSound) {
    start();
    const auto client = listener("", 0);
    upstream->send(packets::raw(0));
    upstream->send(packets::raw(1, 0, false));
    EXPECT_EQ(client->text(), PCM);
    EXPECT_EQ(client->frame().kind, 2);
    EXPECT_THAT(client->frame().content, HasSubstr("\"sampleRate\":44100"));
    EXPECT_EQ(client->frame().content[0], 1);
}

TEST_F(LiveTest, DamagedPacketsAreLeftOut) {
    start();
    const auto client = listener("", 0);
    upstream->send(packets::raw(0));
    packets::Bytes damaged = packets::raw(1);
    damaged.resize(wire::HEADER_LENGTH + 7);
    upstream->send(damaged);
    damaged.resize(wire::HEADER_LENGTH - 1);
    upstream->send(damaged);
    upstream->send(packets::raw(2));
    EXPECT_EQ(client->text(), PCM);
    EXPECT_EQ(client->frame().content[0], 0);
    EXPECT_EQ(client->frame().content[0], 2);
}

TEST_F(LiveTest, WhileTheServerIsAwayListenersWaitAndThenHearOn) {
    start();
    const auto client = listener("", 0);
    upstream->send(packets::raw(5));
    EXPECT_EQ(client->text(), PCM);
    const std::uint16_t samePort = upstream->port();
    upstream->dropAll(0);
    EXPECT_EQ(client->text(), WAITING);
    upstream.reset();
    EXPECT_EQ(live()->text(), WAITING);
    upstream = serve(samePort);
    waitForAsked({0});
    upstream->send(packets::raw(0));
    EXPECT_EQ(client->text(), PCM);
    EXPECT_EQ(client->frame().content, message(0, 338, packets::raw(0)));
}

TEST_F(LiveTest, BeforeTheServerIsThereListenersWait) {
    const std::uint16_t samePort = upstream->port();
    upstream.reset();
    start();
    const auto client = live();
    EXPECT_EQ(client->text(), WAITING);
    upstream = serve(samePort);
    waitForAsked({0});
    upstream->send(packets::raw(0));
    EXPECT_EQ(client->text(), PCM);
}

TEST_F(LiveTest, WhoWaitsIsToldSoAgainBeforeTheConnectionSeemsDead) {
    upstream.reset();
    start();
    const auto client = live();
    EXPECT_EQ(client->text(), WAITING);
    std::this_thread::sleep_for(std::chrono::seconds(6));
    EXPECT_EQ(client->text(), WAITING);
}

TEST_F(LiveTest, PingsAreAnsweredBetweenThePackets) {
    start();
    const auto client = listener("", 0);
    upstream->send(packets::raw(0));
    client->sendFrame(0x89, "hello");
    EXPECT_EQ(client->text(), PCM);
    const WebClient::Frame pong = client->control();
    EXPECT_EQ(pong.kind, 10);
    EXPECT_EQ(pong.content, "hello");
}

TEST_F(LiveTest, WhatAClientSaysIsIgnored) {
    start();
    const auto client = listener("", 0);
    client->sendFrame(0x81, "text");
    client->sendFrame(0x82, std::string(60000, 'b'));
    client->sendFrame(0x01, "in ");
    client->sendFrame(0x89, "ping between");
    client->sendFrame(0x80, "pieces");
    client->sendFrame(0x8A, "a pong that nobody asked for");
    EXPECT_EQ(client->control().kind, 10);
    upstream->send(packets::raw(0));
    EXPECT_EQ(client->text(), PCM);
    EXPECT_EQ(client->frame().content[0], 0);
}

TEST_F(LiveTest, AClosingClientIsAnsweredAndLeaves) {
    start();
    const auto client = live();
    client->sendFrame(0x88, "\x03\xE8");
    const WebClient::Frame answer = client->end();
    EXPECT_EQ(answer.kind, 8);
    EXPECT_EQ(answer.content.substr(0, 2), "\x03\xE8");
    EXPECT_TRUE(client->closes());
    waitForStatus("\"listeners\":0");
}

TEST_F(LiveTest, AClosingClientWhoHasStoppedReadingIsAnsweredNextAndLeaves) {
    start();
    const auto client = listener("?format=opus", 2, SMALL_BUFFER);
    packets::OpusStream stream(2, 0);
    const auto play = [this, &stream](int count) {
        for (int i = 0; i < count; ++i) {
            upstream->send(stream.next());
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    };
    play(300);
    client->sendFrame(0x88, "\x03\xE8");
    play(50);
    waitForStatus("\"listeners\":0");
    EXPECT_EQ(client->end().kind, 8);
    EXPECT_TRUE(client->closes());
}

TEST_F(LiveTest, AClosingClientWhoNeverReadsTheAnswerIsCutOffAfterTenSeconds) {
    start();
    const auto client = listener("", 0, SMALL_BUFFER);
    playFor(3000);
    client->sendFrame(0x88, "\x03\xE8");
    waitForStatus("\"listeners\":0");
}

TEST_F(LiveTest, FramesThatNoClientMaySendEndTheConnection) {
    start();
    struct Wrong {
        int first;
        std::string content;
        bool masked;
        std::string code;
    };
    const std::string protocolError = "\x03\xEA";
    const std::vector<Wrong> wrongs = {
        {0x82, "unmasked", false, protocolError},
        {0x83, "reserved kind", true, protocolError},
        {0xC2, "reserved bit", true, protocolError},
        {0x09, "ping in pieces", true, protocolError},
        {0x89, std::string(126, 'p'), true, protocolError},
        {0x80, "goes on with nothing", true, protocolError},
        {0x88, "x", true, protocolError},
        {0x82, std::string(70000, 'h'), true, "\x03\xF1"},
    };
    for (const Wrong& wrong : wrongs) {
        const auto client = live();
        client->sendFrame(wrong.first, wrong.content, wrong.masked);
        const WebClient::Frame answer = client->end();
        EXPECT_EQ(answer.kind, 8) << wrong.content.substr(0, 20);
        EXPECT_EQ(answer.content.substr(0, 2), wrong.code) << wrong.content.substr(0, 20);
        EXPECT_TRUE(client->closes()) << wrong.content.substr(0, 20);
    }
    waitForStatus("\"listeners\":0");
}

TEST_F(LiveTest, AtTheEndOfTheProgramListenersAreToldSo) {
    start();
    const auto client = listener("", 0);
    const auto second = live();
    shutDown();
    for (WebClient* const each : {client.get(), second.get()}) {
        const WebClient::Frame end = each->end();
        EXPECT_EQ(end.kind, 8);
        EXPECT_EQ(end.content.substr(0, 2), "\x03\xE9");
    }
}

}  // namespace
