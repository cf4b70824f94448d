#include "web/http/response.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace vxweb;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(Response, ASentenceIsWrittenAsText) {
    const std::string text = write(sentence(404, "Nothing."), {false, true, 11});
    EXPECT_THAT(text, StartsWith("HTTP/1.1 404 Not Found\r\n"));
    EXPECT_THAT(text, HasSubstr("Content-Type: text/plain; charset=utf-8\r\n"));
    EXPECT_THAT(text, HasSubstr("Content-Length: 9\r\n"));
    EXPECT_THAT(text, HasSubstr("Connection: keep-alive\r\n\r\nNothing.\n"));
}

TEST(Response, HeadGetsTheSameHeaderWithoutTheBody) {
    const Response response = sentence(200, "Nothing.");
    const std::string whole = write(response, {false, false, 11});
    EXPECT_EQ(write(response, {true, false, 11}) + "Nothing.\n", whole);
}

TEST(Response, EveryAnswerKeepsPagesToTheirOwnOrigin) {
    const std::string text = write(Response(), RequestTraits());
    EXPECT_THAT(text, HasSubstr("Content-Security-Policy: default-src 'self'\r\n"));
    EXPECT_THAT(text, HasSubstr("Cache-Control: no-store\r\n"));
}

TEST(Response, AStreamIsChunkedForHttp11Only) {
    Response stream;
    stream.endless = true;
    EXPECT_THAT(write(stream, {false, false, 11}), HasSubstr("Transfer-Encoding: chunked\r\n"));
    const std::string old = write(stream, {false, false, 10});
    EXPECT_THAT(old, StartsWith("HTTP/1.0 200 OK\r\n"));
    EXPECT_THAT(old, Not(HasSubstr("Transfer-Encoding")));
    EXPECT_THAT(old, Not(HasSubstr("Content-Length")));
}

}  // namespace
