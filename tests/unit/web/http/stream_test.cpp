#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/web/web_site.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class StreamTest : public WebSite {
  protected:
    /// Half a second of sound from the server, at its pace.
    void playHalfASecond() {
        packets::OpusStream stream(2, seq_);
        for (int i = 0; i < 50; ++i) {
            upstream->send(stream.next());
            upstream->send(packets::raw(seq_++));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    std::unique_ptr<WebClient> listener(const std::string& path, const std::string& lines = {}) {
        auto client = std::make_unique<WebClient>(port());
        client->request(path, lines);
        return client;
    }

  private:
    std::uint32_t seq_ = 0;
};

TEST_F(StreamTest, EveryStreamHasItsTypeAndTheNameOfTheStation) {
    start();
    const std::pair<const char*, const char*> types[] = {{"/stream.wav", "audio/wav"},
                                                         {"/stream.flac", "audio/flac"},
                                                         {"/stream.mp3", "audio/mpeg"},
                                                         {"/stream.ogg", "audio/ogg"}};
    for (const auto& [path, type] : types) {
        EXPECT_THAT(
            listener(path)->header(),
            AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                  HasSubstr(std::string("Content-Type: ") + type + "\r\n"),
                  HasSubstr("icy-name: Kitchen\r\n"), HasSubstr("Cache-Control: no-store\r\n"),
                  HasSubstr("Transfer-Encoding: chunked\r\n")));
    }
}

TEST_F(StreamTest, ARangeIsIgnored) {
    start();
    EXPECT_THAT(listener("/stream.wav", "Range: bytes=100-\r\n")->header(),
                AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), Not(HasSubstr("Content-Range"))));
}

TEST_F(StreamTest, TheSoundBeginsWithTheHeaderOfItsFormatAlsoForWhoComesLater) {
    start();
    const auto wav = listener("/stream.wav");
    const auto ogg = listener("/stream.ogg");
    wav->header();
    ogg->header();
    waitForAsked({0, 2});
    playHalfASecond();
    EXPECT_THAT(wav->chunk(), StartsWith("RIFF\xFF\xFF\xFF\xFFWAVE"));
    EXPECT_THAT(ogg->chunk(), AllOf(StartsWith("OggS"), HasSubstr("OpusHead")));
    const auto later = listener("/stream.ogg");
    later->header();
    waitForStatus("\"listeners\":3");
    playHalfASecond();
    EXPECT_THAT(later->chunk(), AllOf(StartsWith("OggS"), HasSubstr("OpusHead")));
    // The page after its headers is one that the first listener gets as well.
    const std::string page = later->chunk();
    std::string other = ogg->chunk();
    while (other != page && !other.empty()) {
        other = ogg->chunk();
    }
    EXPECT_EQ(other, page);
}

TEST_F(StreamTest, APageThatComesToAPlayersFormatHearsEachPacket) {
    start();
    const auto player = listener("/stream.ogg");
    player->header();
    waitForAsked({2});
    playHalfASecond();
    const auto page = live("?format=opus");
    EXPECT_THAT(page->text(), HasSubstr("format"));
    packets::OpusStream stream(2, 50);
    for (unsigned char seq = 50; seq < 70; ++seq) {
        upstream->send(stream.next());
        EXPECT_EQ(page->frame().content.substr(0, 4),
                  std::string({static_cast<char>(seq), 0, 0, 0}));
    }
    EXPECT_THAT(player->chunk(), HasSubstr("OpusHead"));
}

TEST_F(StreamTest, AnOldRadioGetsTheBytesWithoutChunks) {
    start();
    WebClient client(port());
    client.send("GET /stream.wav HTTP/1.0\r\n\r\n");
    EXPECT_THAT(client.header(),
                AllOf(StartsWith("HTTP/1.0 200 OK\r\n"), Not(HasSubstr("Transfer-Encoding"))));
    waitForAsked({0});
    playHalfASecond();
    EXPECT_EQ(client.read(4), "RIFF");
}

TEST_F(StreamTest, SilenceGoesOnWhileTheServerIsAway) {
    start();
    const auto client = listener("/stream.wav");
    client->header();
    waitForAsked({0});
    playHalfASecond();
    upstream.reset();
    client->read(96000);
    EXPECT_EQ(client->read(192000).size(), 192000U) << "a second of it";
}

TEST_F(StreamTest, AtTheEndOfTheProgramAStreamEndsWithItsLastChunk) {
    start();
    const auto client = listener("/stream.wav");
    client->header();
    waitForAsked({0});
    playHalfASecond();
    shutDown();
    std::string chunk = client->chunk();
    while (!chunk.empty()) {
        chunk = client->chunk();
    }
    EXPECT_TRUE(client->closes());
}

TEST_F(StreamTest, AClientThatClosesItsDirectionHearsOnUntilItLeaves) {
    start();
    auto client = listener("/stream.wav");
    client->header();
    shutdown(client->handle(), SHUT_WR);
    waitForAsked({0});
    playHalfASecond();
    EXPECT_THAT(client->chunk(), StartsWith("RIFF"));
    EXPECT_GT(client->chunk().size(), 0U);
    EXPECT_THAT(status(), HasSubstr("\"listeners\":1"));
    client.reset();
    waitForStatus("\"listeners\":0");
}

TEST_F(StreamTest, ListenersAreCountedUntilTheyLeave) {
    start();
    auto client = listener("/stream.mp3");
    client->header();
    waitForStatus("\"listeners\":1,\"feeds\":{\"raw\":1}");
    client.reset();
    waitForStatus("\"listeners\":0,\"feeds\":{\"raw\":0}");
}

}  // namespace
