#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/web/web_site.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class SessionTest : public WebSite {
  protected:
    std::string get(const std::string& path, const std::string& lines = {},
                    const std::string& method = "GET") {
        WebClient client(port());
        client.request(path, lines, method);
        return client.answer();
    }
};

TEST_F(SessionTest, ThePageItsPictureAndItsPlaylistAreThere) {
    start();
    EXPECT_THAT(get("/"), AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                                HasSubstr("Content-Type: text/html; charset=utf-8\r\n"),
                                HasSubstr("<!DOCTYPE html>")));
    EXPECT_THAT(get("/qr.svg"), AllOf(HasSubstr("Content-Type: image/svg+xml\r\n"),
                                      HasSubstr("<svg"), HasSubstr("192.168.1.20:59080")));
    EXPECT_THAT(get("/listen.m3u"),
                AllOf(HasSubstr("Content-Type: audio/x-mpegurl\r\n"),
                      EndsWith("#EXTM3U\n#EXTINF:-1,Kitchen\nhttp://127.0.0.1/stream.mp3\n")));
}

TEST_F(SessionTest, TheManifestIsAskedForWithThePagesPassword) {
    start();
    EXPECT_THAT(get("/"), HasSubstr("<link rel=\"manifest\" href=\"/page/manifest.webmanifest\" "
                                    "crossorigin=\"use-credentials\">"));
}

TEST_F(SessionTest, ThePictureShowsTheAddressThatTheRequestCameTo) {
    start();
    WebClient client(port());
    client.send("GET /qr.svg HTTP/1.1\r\nHost: kitchen:8080\r\n\r\n");
    EXPECT_THAT(client.answer(), HasSubstr("http://kitchen:8080/"));
}

TEST_F(SessionTest, HeadIsAnsweredEverywhereWithoutABody) {
    start();
    for (const char* const path : {"/", "/qr.svg", "/status", "/listen.m3u", "/stream.wav",
                                   "/stream.flac", "/stream.mp3", "/stream.ogg?rate=20"}) {
        WebClient client(port());
        client.request(path, "Connection: close\r\n", "HEAD");
        EXPECT_THAT(client.header(), StartsWith("HTTP/1.1 200 OK\r\n")) << path;
        EXPECT_EQ(client.read(1), "") << path;
    }
    for (const char* const path : {"/nothing", "/live"}) {
        WebClient client(port());
        client.request(path, "Connection: close\r\n", "HEAD");
        EXPECT_THAT(client.header(), StartsWith("HTTP/1.1 4")) << path;
        EXPECT_EQ(client.read(1), "") << path;
    }
    EXPECT_THAT(status(), HasSubstr("\"listeners\":0"));
}

TEST_F(SessionTest, EveryErrorIsOneSentence) {
    start();
    const std::string sentence = ".*\r\n\r\n[A-Z][^\n]*\\.\n";
    const auto answers = [&sentence](const std::string& status) {
        return MatchesRegex("HTTP/1.1 " + status + sentence);
    };
    EXPECT_THAT(get("/nothing"), answers("404 Not Found"));
    EXPECT_THAT(get("/stream.ogg?rate=1"), answers("400 Bad Request"));
    EXPECT_THAT(get("/live"), answers("426 Upgrade Required"));
    EXPECT_THAT(get("/status", {}, "POST"), answers("405 Method Not Allowed"));
    EXPECT_THAT(get("/status", {}, "POST"), HasSubstr("Allow: GET, HEAD\r\n"));
    EXPECT_THAT(get("/status", {}, "BREW"), answers("405 Method Not Allowed"));
    EXPECT_THAT(get("/status", "Host: two\r\n"), answers("400 Bad Request"));
    EXPECT_THAT(get("/status", "A: " + std::string(9000, 'a') + "\r\n"),
                answers("431 Request Header Fields Too Large"));
    WebClient stranger(port());
    stranger.send("GET / HTTP/1.1\r\nHost: attacker.example\r\n\r\n");
    EXPECT_THAT(stranger.answer(), answers("403 Forbidden"));
    WebClient other(port());
    other.send("\x16\x03\x01\x02 something\r\n\r\n");
    EXPECT_THAT(other.answer(), answers("400 Bad Request"));
}

TEST_F(SessionTest, APasswordIsAskedForEverywhere) {
    login = "anna:secret";
    start();
    for (const char* const path : {"/", "/status", "/stream.ogg", "/live", "/nothing"}) {
        EXPECT_THAT(get(path), AllOf(StartsWith("HTTP/1.1 401 Unauthorized\r\n"),
                                     HasSubstr("WWW-Authenticate: Basic realm=")))
            << path;
    }
    const std::string right = "Authorization: Basic YW5uYTpzZWNyZXQ=\r\n";
    EXPECT_THAT(get("/status", right), StartsWith("HTTP/1.1 200 OK\r\n"));
    WebClient client(port());
    client.upgrade("/live", right);
    EXPECT_THAT(client.header(), StartsWith("HTTP/1.1 101"));
}

TEST_F(SessionTest, RequestsFollowEachOtherOnOneConnection) {
    start();
    WebClient client(port());
    const std::string request = "GET /status HTTP/1.1\r\nHost: kitchen\r\n\r\n";
    client.send(request + request);
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 200 OK\r\n"));
    client.request("/nothing");
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 404 Not Found\r\n"));
    client.request("/status", "Connection: close\r\n");
    EXPECT_THAT(client.answer(), HasSubstr("Connection: close\r\n"));
    EXPECT_TRUE(client.closes());
}

TEST_F(SessionTest, ABodyIsNotReadAndEndsTheConnection) {
    start();
    WebClient client(port());
    client.request("/status", "Content-Length: 9000000\r\n");
    client.send(std::string(100000, 'b'));
    EXPECT_THAT(client.answer(), AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("Connection: close")));
    EXPECT_TRUE(client.closes());
}

TEST_F(SessionTest, ARequestThatDoesNotComeWithinTenSecondsIsGivenUp) {
    start();
    WebClient silent(port());
    WebClient half(port());
    half.send("GET / HTTP/1.1\r\nHost: ");
    WebClient idle(port());
    idle.request("/status");
    idle.answer();
    WebClient slow(port());
    slow.send("GET / HTTP/1.1\r\nA: ");
    for (int i = 0; i < 90; ++i) {
        slow.send("a");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (WebClient* const client : {&silent, &half, &slow}) {
        EXPECT_THAT(client->answer(), StartsWith("HTTP/1.1 408 Request Timeout\r\n"));
        EXPECT_TRUE(client->closes());
    }
    EXPECT_EQ(idle.answer(), "") << "it had nothing to ask";
}

TEST_F(SessionTest, WhenAllPlacesAreTakenListenersAreTurnedAwayButThePageIsNot) {
    options.maxListeners = 2;
    start();
    const auto first = live();
    WebClient second(port());
    second.request("/stream.mp3");
    second.header();
    EXPECT_THAT(get("/stream.ogg"), StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
    WebClient third(port());
    third.upgrade("/live");
    EXPECT_THAT(third.answer(), StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
    EXPECT_THAT(get("/"), StartsWith("HTTP/1.1 200 OK\r\n"));
    second.closes(0);
    shutdown(second.handle(), 2);
    waitForStatus("\"listeners\":1");
    live();
}

TEST_F(SessionTest, AWebSocketFromAnotherServersPageIsRefused) {
    start();
    WebClient client(port());
    client.upgrade("/live", "Origin: http://attacker.example\r\n");
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 403 Forbidden\r\n"));
    WebClient own(port());
    own.upgrade("/live", "Origin: http://127.0.0.1\r\n");
    EXPECT_THAT(own.header(), StartsWith("HTTP/1.1 101"));
}

TEST_F(SessionTest, AnUpgradeThatIsWrongIsAnsweredWithOneSentence) {
    start();
    const std::string upgrade = "Connection: Upgrade\r\nUpgrade: websocket\r\n";
    const std::string key = "Sec-WebSocket-Key: AQIDBAUGBwgJCgsMDQ4PEA==\r\n";
    const std::string version = "Sec-WebSocket-Version: 13\r\n";
    const std::pair<std::string, const char*> wrongs[] = {
        {"Connection: Upgrade\r\nUpgrade: h2c\r\n", "426"},
        {upgrade, "400"},
        {upgrade + version, "400"},
        {upgrade + version + "Sec-WebSocket-Key: a\r\n", "400"},
        {upgrade + version + "Sec-WebSocket-Key: " + std::string(100, 'a') + "\r\n", "400"},
        {upgrade + key, "426"},
        {upgrade + key + "Sec-WebSocket-Version: 7\r\n", "426"}};
    for (const auto& [lines, code] : wrongs) {
        EXPECT_THAT(get("/live", lines),
                    AllOf(StartsWith(std::string("HTTP/1.1 ") + code),
                          HasSubstr("Content-Type: text/plain"), Not(HasSubstr("Beast")),
                          ContainsRegex("\r\n\r\n[A-Z][^\n]*\\.\n$")))
            << lines;
    }
    EXPECT_THAT(get("/live", upgrade + key), HasSubstr("Sec-WebSocket-Version: 13\r\n"));
    waitForStatus("\"listeners\":0");
}

}  // namespace
