#include "web/http/routes.h"

#include <gtest/gtest.h>

namespace {

using namespace vxweb;
using Kind = Route::Kind;

Channel channelAt(const std::string& target) {
    const Route route = findRoute(target);
    EXPECT_TRUE(route.kind == Kind::Stream || route.kind == Kind::Live) << target;
    return CHANNELS[route.channel];
}

TEST(Routes, StreamsHaveTheirDefaultRates) {
    EXPECT_EQ(channelAt("/stream.wav").form, Form::Wav);
    EXPECT_EQ(channelAt("/stream.flac").form, Form::Flac);
    EXPECT_EQ(channelAt("/stream.mp3").rate, 192);
    EXPECT_EQ(channelAt("/stream.ogg").rate, 128);
    EXPECT_EQ(channelAt("/live").form, Form::LivePcm);
    EXPECT_EQ(channelAt("/live?format=pcm").form, Form::LivePcm);
    EXPECT_EQ(channelAt("/live?format=opus").rate, 128);
}

TEST(Routes, ARateIsTakenWhereThereIsAChoice) {
    EXPECT_EQ(channelAt("/stream.ogg?rate=20").rate, 20);
    EXPECT_EQ(channelAt("/stream.mp3?rate=64").rate, 64);
    EXPECT_EQ(channelAt("/live?rate=256&format=opus").rate, 256);
    EXPECT_EQ(channelAt("/live?format=opus&rate=64#now").rate, 64);
}

TEST(Routes, ArrivalsComeOnRequest) {
    EXPECT_FALSE(channelAt("/live?format=opus&rate=64").arrivals);
    EXPECT_TRUE(channelAt("/live?arrivals=1").arrivals);
    EXPECT_TRUE(channelAt("/live?format=opus&rate=64&arrivals=1").arrivals);
    EXPECT_FALSE(channelAt("/stream.ogg?arrivals=1").arrivals);
}

TEST(Routes, WrongValuesAreBadQueriesWithASentence) {
    for (const char* const target :
         {"/stream.ogg?rate=192", "/stream.mp3?rate=20", "/stream.mp3?rate=", "/stream.mp3?rate",
          "/stream.ogg?rate=128k", "/stream.ogg?rate=-1", "/stream.ogg?rate=99999999999999999999",
          "/stream.wav?rate=128", "/stream.flac?rate=0", "/live?rate=128",
          "/live?format=pcm&rate=128", "/live?format=ogg", "/live?format=", "/live?format",
          "/live?format=opus&rate=0", "/live?arrivals=0", "/live?arrivals"}) {
        const Route route = findRoute(target);
        EXPECT_EQ(route.kind, Kind::BadQuery) << target;
        EXPECT_EQ(route.problem.back(), '.') << target;
    }
}

TEST(Routes, UnknownNamesAreIgnoredAndOfTwoValuesTheFirstHolds) {
    EXPECT_EQ(channelAt("/stream.ogg?a=b&rate=64&rate=9&&=").rate, 64);
    EXPECT_EQ(channelAt("/stream.wav?rates=5&xrate=5").form, Form::Wav);
    EXPECT_EQ(findRoute("/status?rate=1").kind, Kind::Status);
}

TEST(Routes, WhatIsNowhereIsMissing) {
    for (const char* const target :
         {"", "*", "/stream.aac", "/live/", "/Status", "/../status", "//", "/index.html", "?"}) {
        EXPECT_EQ(findRoute(target).kind, Kind::Missing) << target;
    }
}

TEST(Routes, ThePageAndItsNeighboursAreFound) {
    EXPECT_EQ(findRoute("/").kind, Kind::Asset);
    EXPECT_EQ(findRoute("/?from=qr").kind, Kind::Asset);
    EXPECT_EQ(findRoute("/qr.svg").kind, Kind::Qr);
    EXPECT_EQ(findRoute("/status").kind, Kind::Status);
    EXPECT_EQ(findRoute("/listen.m3u").kind, Kind::Playlist);
}

}  // namespace
