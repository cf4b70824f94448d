#include "web/upstream/station.h"

#include <filesystem>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "stream/wire_format.h"
#include "tests/unit/web/web_site.h"

namespace {

using testing::HasSubstr;

class StationTest : public WebSite {};

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST_F(StationTest, NobodyListensSoTheServerIsLeftInPeace) {
    start();
    waitForStatus("\"server\":\"127.0.0.1:");
    EXPECT_THAT(status(), HasSubstr("\"connected\":false,\"sampleRate\":null,\"listeners\":0,"
                                    "\"feeds\":{}"));
    EXPECT_EQ(upstream->connections(), 0);
}

TEST_F(StationTest, HoweverManyListenTheServerHasOneConnectionForEachFormat) {
    start();
    std::vector<std::unique_ptr<WebClient>> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(live());
        clients.push_back(live("?format=opus"));
        clients.push_back(std::make_unique<WebClient>(port()));
        clients.back()->request("/stream.flac");
        clients.push_back(std::make_unique<WebClient>(port()));
        clients.back()->request("/stream.ogg");
    }
    waitForStatus("\"listeners\":20,\"feeds\":{\"raw\":10,\"128\":10}");
    waitForAsked({0, 2});
    EXPECT_EQ(upstream->connections(), 2);
}

TEST_F(StationTest, AllFormatsTogetherTakeFivePlaces) {
    start();
    std::vector<std::unique_ptr<WebClient>> clients;
    clients.push_back(live());
    for (const char* const rate : {"20", "64", "128", "256"}) {
        clients.push_back(live(std::string("?format=opus&rate=") + rate));
    }
    waitForAsked({0, 1, 2, 3, 5});
    waitForStatus("\"connected\":true");
}

TEST_F(StationTest, AConnectionStaysForFiveSecondsAfterItsLastListener) {
    start();
    auto client = live();
    waitForAsked({0});
    client.reset();
    waitForStatus("\"listeners\":0,\"feeds\":{\"raw\":0}");
    playFor(3000);
    const std::ptrdiff_t withConnection = openDescriptors();
    client = live();
    waitForStatus("\"feeds\":{\"raw\":1}");
    client.reset();
    playFor(3000);
    EXPECT_THAT(status(), HasSubstr("\"feeds\":{\"raw\":0}")) << "the time begins anew";
    playFor(2500);
    waitForStatus("\"feeds\":{}");
    waitForAsked({});
    EXPECT_EQ(upstream->connections(), 1);
    waitUntil([withConnection] { return openDescriptors() < withConnection; });
    client = live();
    waitForAsked({0});
    EXPECT_EQ(upstream->connections(), 2);
}

TEST_F(StationTest, TheLastRateIsRememberedWhenNobodyListens) {
    start();
    auto client = live();
    waitForAsked({0});
    upstream->send(packets::raw(0, 0, false));
    waitForStatus("\"sampleRate\":44100");
    client.reset();
    waitForStatus("\"feeds\":{}");
    EXPECT_THAT(status(), HasSubstr("\"connected\":false,\"sampleRate\":44100"));
}

TEST_F(StationTest, TheRateIsThatOfTheLatestSoundAlsoWhenItIsLower) {
    start();
    const auto raw = live();
    waitForAsked({0});
    upstream->send(packets::raw(0));
    waitForStatus("\"sampleRate\":48000");
    const auto opus = live("?format=opus");
    waitForAsked({0, 2});
    upstream->send(packets::OpusStream(2, 0, false).next());
    waitForStatus("\"sampleRate\":44100");
}

TEST_F(StationTest, NobodyIsConnectedInTheSecondsAfterTheLastListener) {
    start();
    auto client = live();
    waitForStatus("\"connected\":true");
    client.reset();
    waitForStatus("\"feeds\":{\"raw\":0}");
    EXPECT_THAT(status(), HasSubstr("\"connected\":false"));
}

TEST_F(StationTest, APlaceThatWasGivenAwayIsAskedForAgainLater) {
    start();
    const auto client = live();
    waitForAsked({0});
    upstream->send(packets::raw(0));
    EXPECT_THAT(client->text(), HasSubstr("format"));
    upstream->dropAll(wire::DISCONNECT_REPLACED);
    EXPECT_EQ(client->text(), R"({"state":"waiting"})");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(upstream->connections(), 1) << "not at once";
    waitForAsked({0});
    EXPECT_EQ(upstream->connections(), 2);
}

TEST_F(StationTest, AServerThatFallsSilentIsConnectedToAnew) {
    start();
    const auto client = live();
    waitForAsked({0});
    upstream->send(packets::raw(0));
    EXPECT_THAT(client->text(), HasSubstr("format"));
    EXPECT_EQ(client->text(), R"({"state":"waiting"})");
    waitUntil([this] { return upstream->connections() == 2; });
}

TEST_F(StationTest, AtTheEndOfTheProgramTheServerIsToldGoodbye) {
    start();
    const auto client = live();
    waitForAsked({0});
    shutDown();
    waitForAsked({});
    WebClient late(port());
    late.request("/stream.ogg");
    EXPECT_THAT(late.header(), testing::StartsWith("HTTP/1.1 503 "));
}

TEST(WorkerTest, APacketFromASecondThreadFailsAnAssertion) {
    vxweb::Worker worker(0);
    worker.shutDown();
    const auto elsewhere = [&worker] { std::thread([&] { worker.deliver(0, {}); }).join(); };
    EXPECT_DEBUG_DEATH(elsewhere(), "here\\(\\)");
}

}  // namespace
