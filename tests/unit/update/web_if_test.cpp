// Checks against a real web server.

#include <fstream>
#include <string>

#include <QTemporaryDir>
#include <climits>

#include "web_if_fixture.h"

namespace {

using namespace std::string_literals;

constexpr std::size_t MAX_BODY_SIZE = 1024UL * 1024UL;

TEST_F(WebIfCheck, NewVersionIsReportedAndStored) {
    EXPECT_EQ(checkFile("3.2\r\n"), 1);
    EXPECT_EQ(printed, report(5, "3.2") + NEWS);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "3.2");
    EXPECT_EQ(Settings::getVersionCheckTime(), NOW);
}

TEST_F(WebIfCheck, AnnouncedVersionIsPrintedButNotReportedAgain) {
    EXPECT_EQ(checkFile("3.2\r\n"), 1);
    setClock(NOW + 480);
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, report(5, "3.2") + NEWS);
    setClock(NOW + 960);
    EXPECT_EQ(checkFile("3.3\n"), 1);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "3.3");
}

TEST_F(WebIfCheck, RunningVersionIsNoNews) {
    Settings::setVersionCheckResponse("3.0");
    EXPECT_EQ(checkFile("3.1\n3.2\n"), 0);
    EXPECT_EQ(printed, report(8, "3.1"));
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "3.0");
}

TEST_F(WebIfCheck, OlderVersionCountsAsNew) {
    EXPECT_EQ(checkFile("3.0"), 1);
    EXPECT_EQ(printed, report(3, "3.0") + NEWS);
}

TEST_F(WebIfCheck, LineIsComparedByteByByte) {
    EXPECT_EQ(checkFile("3.1 \n"), 1);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "3.1 ");
}

TEST_F(WebIfCheck, UnusableLinesGiveTheShortReport) {
    for (const std::string body : {"3.", "3.20.30.400", "v3.2", "<html>", " 3.2"}) {
        Settings::setVersionCheckTime(0);
        EXPECT_EQ(checkFile(body + "\n"), 0);
        EXPECT_EQ(printed, shortReport(body.size() + 1, body.size()));
    }
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
}

TEST_F(WebIfCheck, UnusableRunningVersionGivesTheShortReport) {
    for (const char* const running : {"", "3.", "v3.1", "3.1.4159265"}) {
        Settings::setVersionCheckTime(0);
        EXPECT_EQ(checkFile("3.2\n", running), 0);
        EXPECT_EQ(printed, shortReport(4, 3));
    }
}

TEST_F(WebIfCheck, EmptyBodyIsUnusable) {
    EXPECT_EQ(checkFile(""), 0);
    EXPECT_EQ(printed, shortReport(0, 0));
}

TEST_F(WebIfCheck, BodyMayComeByteByByte) {
    server.answer({"3.2\r\nand some more text", 200, "", "byte by byte"});
    EXPECT_EQ(check(), 1);
    EXPECT_EQ(printed, report(23, "3.2") + NEWS);
}

TEST_F(WebIfCheck, NothingIsSentButOneGetWithTheUserAgent) {
    checkFile("3.1\n");
    const std::vector<VersionRequest> requests = server.takeRequests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].path, VERSION_FILE);
    EXPECT_EQ(requests[0].headers["User-Agent"].toString(), "libcurl-agent/1.0");
    const QStringList expected = {"Accept", "Host", "User-Agent"};
    EXPECT_EQ(requests[0].headers.keys(), expected);
}

// --- The frame page ---

std::string framePage(const std::string& address) {
    return "<html><frame src=\"" + address + "\"></html>\n";
}

TEST_F(WebIfCheck, FrameIsFetchedInThePlaceOfThePage) {
    server.answer({framePage(server.address() + "/inner")});
    server.answer({"3.2\n"}, "/inner");
    EXPECT_EQ(check(), 1);
    EXPECT_EQ(printed, report(4, "3.2") + NEWS);
    const std::vector<VersionRequest> requests = server.takeRequests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[1].path, "/inner");
    EXPECT_EQ(requests[1].headers["User-Agent"].toString(), "libcurl-agent/1.0");
}

TEST_F(WebIfCheck, FrameWithinAFrameIsNotFollowed) {
    const std::string inner = framePage(server.address() + "/third");
    server.answer({framePage(server.address() + "/inner")});
    server.answer({inner}, "/inner");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, shortReport(inner.size(), inner.size() - 1));
    EXPECT_EQ(server.takeRequests().size(), 2U);
}

TEST_F(WebIfCheck, EmptyFrameIsUnusableWhateverThePageHeld) {
    server.answer({"3.2\n" + framePage(server.address() + "/inner")});
    server.answer({""}, "/inner");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, shortReport(0, 0));
}

TEST_F(WebIfCheck, FrameMayRedirect) {
    server.answer({framePage(server.address() + "/inner")});
    server.answer({"", 302, "/moved"}, "/inner");
    server.answer({"3.2\n"}, "/moved");
    EXPECT_EQ(check(), 1);
}

TEST_F(WebIfCheck, FrameAddressOfEightCharactersIsFollowed) {
    EXPECT_EQ(checkFile(framePage("ftp://ab")), 0);
    EXPECT_EQ(printed, secondFailure(CURLE_UNSUPPORTED_PROTOCOL));
}

TEST_F(WebIfCheck, MissingFrameIsAFailure) {
    server.answer({"3.2\n" + framePage(server.address() + "/inner")});
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, secondFailure(CURLE_HTTP_RETURNED_ERROR));
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
}

// --- Redirects ---

/// Redirects the version file `count` times, at last to a file with a new version.
void redirect(VersionServer& server, int count) {
    std::string path = VERSION_FILE;
    for (int hop = 1; hop <= count; ++hop) {
        const std::string next = "/hop" + std::to_string(hop);
        server.answer({"a page that says it moved", 302, next}, path);
        path = next;
    }
    server.answer({"3.2\n"}, path);
}

TEST_F(WebIfCheck, FiveRedirectsAreFollowed) {
    redirect(server, 5);
    EXPECT_EQ(check(), 1);
    EXPECT_EQ(printed, report(4, "3.2") + NEWS);
    EXPECT_EQ(server.takeRequests().size(), 6U);
}

TEST_F(WebIfCheck, SixRedirectsAreTooMany) {
    redirect(server, 6);
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, failure(CURLE_TOO_MANY_REDIRECTS));
    EXPECT_EQ(server.takeRequests().size(), 6U);
}

TEST_F(WebIfCheck, OtherProtocolsAreRefused) {
    const QTemporaryDir folder;
    const std::string file = folder.path().toStdString() + "/version";
    std::ofstream(file) << "3.2\n";
    for (const std::string& address :
         {"file://" + file, "ftp://127.0.0.1/version"s, "gopher://127.0.0.1/version"s}) {
        Settings::setVersionCheckTime(0);
        server.answer({"", 302, address});
        EXPECT_EQ(check(), 0);
        EXPECT_EQ(printed, failure(CURLE_UNSUPPORTED_PROTOCOL)) << address;
        Settings::setVersionCheckTime(0);
        EXPECT_EQ(checkFile(framePage(address)), 0);
        EXPECT_EQ(printed, secondFailure(CURLE_UNSUPPORTED_PROTOCOL)) << address;
    }
}

// --- Failed transfers ---

TEST_F(WebIfCheck, HttpErrorIsAFailureAndStillAdvancesTheTime) {
    for (const int status : {404, 500, 403}) {
        Settings::setVersionCheckTime(0);
        server.answer({"3.2\n", status});
        EXPECT_EQ(check(), 0);
        EXPECT_EQ(printed, failure(CURLE_HTTP_RETURNED_ERROR));
        EXPECT_EQ(Settings::getVersionCheckTime(), NOW);
        EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
    }
}

TEST_F(WebIfCheck, BodyOfOneMebibyteIsTaken) {
    EXPECT_EQ(checkFile("3.2\n" + std::string(MAX_BODY_SIZE - 4, 'x')), 1);
    EXPECT_EQ(printed, report(MAX_BODY_SIZE, "3.2") + NEWS);
}

TEST_F(WebIfCheck, LargerBodyIsAFailure) {
    EXPECT_EQ(checkFile("3.2\n" + std::string(MAX_BODY_SIZE - 3, 'x')), 0);
    EXPECT_EQ(printed, failure(CURLE_WRITE_ERROR));
}

TEST_F(WebIfCheck, LimitHoldsForTheFrameToo) {
    server.answer({framePage(server.address() + "/inner") + std::string(MAX_BODY_SIZE / 2, 'x')});
    server.answer({"3.2\n" + std::string(MAX_BODY_SIZE - 4, 'x')}, "/inner");
    EXPECT_EQ(check(), 1);
    Settings::setVersionCheckTime(0);
    server.answer({std::string(65536, '3'), 200, "", "endless"}, "/inner");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, secondFailure(CURLE_WRITE_ERROR));
}

// --- The 480 minutes ---

/// True when a check asks the server, with this stored time and the clock at `now`.
bool asks(VersionServer& server, int last, int now) {
    linkSubstitutes.now = static_cast<std::time_t>(now) * 60;
    Settings::setVersionCheckTime(last);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(WebIf().checkVersion("3.1"), 0);
    const bool printed = !::testing::internal::GetCapturedStdout().empty();
    const bool asked = !server.takeRequests().empty();
    EXPECT_EQ(printed, asked);
    EXPECT_EQ(Settings::getVersionCheckTime(), asked ? now : last);
    return asked;
}

TEST_F(WebIfCheck, CheckWaitsFor480Minutes) {
    server.answer({"3.1\n"});
    EXPECT_FALSE(asks(server, NOW, NOW));
    EXPECT_FALSE(asks(server, NOW - 479, NOW));
    EXPECT_TRUE(asks(server, NOW - 480, NOW));
    EXPECT_TRUE(asks(server, 0, NOW));
}

TEST_F(WebIfCheck, ClockSetBackDoesNotBlock) {
    server.answer({"3.1\n"});
    EXPECT_TRUE(asks(server, NOW + 1, NOW));
    EXPECT_TRUE(asks(server, INT_MAX, NOW));
}

TEST_F(WebIfCheck, TimesAtTheEndOfTheRangeDoNotOverflow) {
    server.answer({"3.1\n"});
    EXPECT_FALSE(asks(server, INT_MAX, INT_MAX));
    EXPECT_FALSE(asks(server, INT_MAX - 479, INT_MAX));
    EXPECT_TRUE(asks(server, INT_MAX - 480, INT_MAX));
    EXPECT_TRUE(asks(server, INT_MIN, NOW));
}

}  // namespace
