#include "web/http/access.h"

#include <gtest/gtest.h>

namespace {

using namespace vxweb;
namespace http = boost::beast::http;

const std::vector<std::string> NAMES = {"kitchen", "kitchen.local", "radio.example"};

Request requestFor(const std::string& host) {
    Request request;
    request.version(11);
    request.set(http::field::host, host);
    return request;
}

/// The status of the answer, 0 when the request is let in.
unsigned judge(const Request& request, bool stream = false, const std::string& login = {}) {
    const auto answer = Access(NAMES, login).refuse(request, stream);
    return answer ? answer->status : 0;
}

unsigned judgeHost(const std::string& host) {
    return judge(requestFor(host));
}

unsigned judgeOrigin(const std::string& origin, const std::string& host) {
    Request request = requestFor(host);
    request.set(http::field::upgrade, "websocket");
    request.set(http::field::origin, origin);
    return judge(request);
}

unsigned judgeLogin(const std::string& authorization) {
    Request request = requestFor("kitchen");
    request.set(http::field::authorization, authorization);
    return judge(request, false, "anna:secret");
}

TEST(Access, AddressesLocalhostAndOwnNamesAreLetIn) {
    for (const char* const host :
         {"192.168.1.20", "192.168.1.20:59080", "[::1]", "[2001:db8::1]:59080", "localhost",
          "localhost:80", "LOCALHOST", "kitchen", "Kitchen:59080", "kitchen.local", "kitchen.",
          "radio.example:443"}) {
        EXPECT_EQ(judgeHost(host), 0U) << host;
    }
}

TEST(Access, OtherNamesAreRefusedForTheyMayPointHereByDesign) {
    for (const char* const host :
         {"attacker.example", "kitchen.attacker.example", "", ":80", "[", "[]", "1.2.3.4.example",
          "localhost.example", "xkitchen", "127.0.0.1@attacker.example", "0x7f000001.example"}) {
        EXPECT_EQ(judgeHost(host), 403U) << host;
    }
}

TEST(Access, WhatFollowsTheHostIsAPortOrItIsNoHost) {
    for (const char* const host :
         {"[::1].attacker.example", "[::1]59080", "[::1]:x", "127.0.0.1:x.attacker.example",
          "127.0.0.1:80:80", "kitchen:80@attacker.example", "localhost:-1", "[::1",
          "kitchen: 80"}) {
        EXPECT_EQ(judgeHost(host), 403U) << host;
    }
    EXPECT_EQ(judgeHost("127.0.0.1:" + std::string(2300, '0')), 403U);
    EXPECT_EQ(judgeHost("[fe80::1%" + std::string(2300, 'a') + "]"), 403U);
}

TEST(Access, ARequestNamesItsHostOnce) {
    Request none;
    none.version(11);
    EXPECT_EQ(judge(none), 400U);
    EXPECT_EQ(judge(none, true), 400U);
    Request two = requestFor("kitchen");
    two.insert(http::field::host, "kitchen");
    EXPECT_EQ(judge(two), 400U);
}

TEST(Access, AnOldRadioHearsStreamsWithoutAHostAndNothingElse) {
    Request old;
    old.version(10);
    EXPECT_EQ(judge(old, true), 0U);
    EXPECT_EQ(judge(old, false), 400U);
}

TEST(Access, AWebSocketComesFromAPageOfTheSameHostAndPort) {
    EXPECT_EQ(judgeOrigin("http://kitchen:59080", "kitchen:59080"), 0U);
    EXPECT_EQ(judgeOrigin("http://KITCHEN:59080", "kitchen:59080"), 0U);
    EXPECT_EQ(judgeOrigin("https://kitchen", "kitchen:443"), 0U);
    EXPECT_EQ(judgeOrigin("http://[::1]:8000", "[::1]:8000"), 0U);
    for (const char* const origin :
         {"http://kitchen", "http://kitchen:80", "http://attacker.example", "null", "",
          "http://kitchen:59080.attacker.example", "https://localhost:59080", "kitchen:59080"}) {
        EXPECT_EQ(judgeOrigin(origin, "kitchen:59080"), 403U) << origin;
    }
}

TEST(Access, AWebSocketWithoutAnOriginIsNoBrowsers) {
    Request request = requestFor("kitchen");
    request.set(http::field::upgrade, "websocket");
    EXPECT_EQ(judge(request), 0U);
}

TEST(Access, OnlyTheRightUserAndPasswordAreLetIn) {
    const std::string right = "YW5uYTpzZWNyZXQ=";  // anna:secret
    EXPECT_EQ(judgeLogin("Basic " + right), 0U);
    EXPECT_EQ(judgeLogin("basic  " + right), 0U);
    const std::vector<std::string> wrongs = {"",
                                             "Basic",
                                             "Basic ",
                                             right,
                                             "Bearer " + right,
                                             "Basic " + right + "=",
                                             "Basic YW5uYTpzZWNyZXR4",
                                             "Basic anna:secret"};
    for (const std::string& wrong : wrongs) {
        EXPECT_EQ(judgeLogin(wrong), 401U) << wrong;
    }
}

TEST(Access, WithoutAPasswordNobodyIsAsked) {
    EXPECT_EQ(judgeHost("kitchen"), 0U);
    EXPECT_EQ(judge(requestFor("kitchen"), false, "anna:secret"), 401U);
}

TEST(Access, AStrangersHostIsNotEvenAskedForThePassword) {
    EXPECT_EQ(judge(requestFor("attacker.example"), false, "anna:secret"), 403U);
}

TEST(Access, ThisComputerGoesByItsNameAlsoOnTheLocalNetwork) {
    const std::vector<std::string> names = ownNames();
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names.back().substr(names.back().size() - 6), ".local");
}

}  // namespace
