#include "web/http/request_reader.h"

#include <gtest/gtest.h>

namespace {

using vxweb::RequestReader;
using State = RequestReader::State;

const std::string REQUEST = "GET /status?a=b HTTP/1.1\r\nHost: kitchen\r\n\r\n";

State stateAfter(const std::string& bytes) {
    RequestReader reader;
    reader.read(bytes);
    return reader.state();
}

TEST(RequestReader, ARequestIsReadInOnePiece) {
    RequestReader reader;
    EXPECT_EQ(reader.read(REQUEST + "more"), REQUEST.size());
    ASSERT_EQ(reader.state(), State::Complete);
    EXPECT_EQ(reader.request().target(), "/status?a=b");
    EXPECT_EQ(reader.request()["host"], "kitchen");
    EXPECT_FALSE(reader.hasBody());
}

TEST(RequestReader, ARequestIsReadByteByByte) {
    RequestReader reader;
    std::string waiting;
    for (const char byte : REQUEST) {
        ASSERT_EQ(reader.state(), State::Reading);
        waiting.push_back(byte);
        waiting.erase(0, reader.read(waiting));
    }
    EXPECT_EQ(reader.state(), State::Complete);
    EXPECT_EQ(waiting, "");
}

TEST(RequestReader, WhatIsNoRequestIsBad) {
    for (const char* const bytes :
         {"\x16\x03\x01\x02", "GET\r\n\r\n", "GET / HTTP/9.9\r\n\r\n", "GET / GET / GET / \r\n\r\n",
          "G\001T / HTTP/1.1\r\n\r\n", "GET / HTTP/1.1\r\nno colon\r\n\r\n",
          "GET / HTTP/1.1\r\nContent-Length: x\r\n\r\n",
          "GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n"}) {
        EXPECT_EQ(stateAfter(bytes), State::Bad) << bytes;
    }
}

TEST(RequestReader, AHeaderIsAtMostEightKibibytesLong) {
    const std::string start = "GET / HTTP/1.1\r\nA: ";
    const std::size_t room = RequestReader::MAX_HEADER - start.size() - 4;
    EXPECT_EQ(stateAfter(start + std::string(room, 'a') + "\r\n\r\n"), State::Complete);
    EXPECT_EQ(stateAfter(start + std::string(room + 1, 'a') + "\r\n\r\n"), State::TooLong);
    EXPECT_EQ(stateAfter(start + std::string(100000, 'a')), State::TooLong);
    EXPECT_EQ(stateAfter("GET /" + std::string(100000, 'a')), State::TooLong);
}

TEST(RequestReader, AnAnnouncedBodyIsNoticed) {
    RequestReader length;
    length.read("GET / HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\n");
    EXPECT_TRUE(length.hasBody());
    RequestReader chunked;
    chunked.read("GET / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n");
    EXPECT_TRUE(chunked.hasBody());
}

}  // namespace
