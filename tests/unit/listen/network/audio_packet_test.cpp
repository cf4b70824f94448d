#include "listen/network/audio_packet.h"

#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/packets.h"

using packets::Bytes;
using packets::make;
using vxlisten::Encoding;
using vxlisten::parseAudioPacket;

namespace {

auto parse(const Bytes& bytes) {
    return parseAudioPacket(bytes.data(), bytes.size());
}

}  // namespace

TEST(AudioPacket, RawPacketTellsItsFramesAndRate) {
    const auto packet = parse(packets::raw(7));
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->encoding, Encoding::Raw);
    EXPECT_EQ(packet->seq, 7u);
    EXPECT_EQ(packet->frames, 338u);
    EXPECT_EQ(packet->sampleRate, 48000);
    EXPECT_TRUE(packet->reliable);
    EXPECT_FALSE(packet->compressedPass());
}

TEST(AudioPacket, ClearRateFlagMeans44100AlsoForOpus) {
    const auto packet = parse(make(0, wire::makeFlags(false, false, 1), Bytes(50)));
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->encoding, Encoding::Opus);
    EXPECT_EQ(packet->sampleRate, 44100);
    EXPECT_EQ(packet->frames, 480u);
    EXPECT_FALSE(packet->reliable);
}

TEST(AudioPacket, FallbackIsKnownByItsLengthAtEveryCompressedCode) {
    for (std::uint32_t code = 1; code < 8; ++code) {
        const auto packet = parse(make(0, wire::makeFlags(true, true, code), Bytes(1920)));
        ASSERT_TRUE(packet) << code;
        EXPECT_EQ(packet->encoding, Encoding::Fallback);
        EXPECT_EQ(packet->rateCode, code);
        EXPECT_TRUE(packet->compressedPass());
    }
}

TEST(AudioPacket, HeaderAloneIsAnEmptyRawBlock) {
    const auto packet = parse(make(3, wire::makeFlags(true, true, 0), {}));
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->frames, 0u);
}

TEST(AudioPacket, WhatNoServerSendsIsRefused) {
    EXPECT_FALSE(parse({}));
    for (std::size_t length = 1; length < wire::HEADER_LENGTH; ++length) {
        EXPECT_FALSE(parse(Bytes(length))) << length;
    }
    EXPECT_FALSE(parse(make(0, wire::makeFlags(true, true, 1), {})));
    EXPECT_FALSE(parse(make(0, wire::makeFlags(true, true, 1), Bytes(1353))));
    EXPECT_FALSE(parse(make(0, wire::makeFlags(true, true, 1), Bytes(1921))));
    EXPECT_FALSE(parse(make(0, wire::makeFlags(true, true, 0), Bytes(1351))));
    EXPECT_FALSE(parse(make(0, wire::makeFlags(true, true, 0), Bytes(1924))));
    Bytes control = packets::raw(0);
    control[0] = 1;
    EXPECT_FALSE(parse(control));
}
