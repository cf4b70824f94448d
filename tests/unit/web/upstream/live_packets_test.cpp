#include "web/upstream/live_packets.h"

#include <gtest/gtest.h>

namespace {

using namespace vxweb;

/// `payload` as packet number 0x01020304 of 480 frames.
vxlisten::AudioPacket packetOf(const std::string& payload) {
    vxlisten::AudioPacket packet;
    packet.seq = 0x01020304;
    packet.frames = 480;
    packet.payload = reinterpret_cast<const unsigned char*>(payload.data());
    packet.payloadLength = payload.size();
    return packet;
}

PacketPtr soundOf(const std::string& payload) {
    return makeSound(packetOf(payload), 7);
}

TEST(LivePackets, SoundHasItsNumberAndFramesBeforeThePayload) {
    const PacketPtr packet = soundOf("opus");
    EXPECT_EQ(packet->bytes, std::string("\x82\x0C\x04\x03\x02\x01\xE0\x01\x00\x00opus", 14));
    EXPECT_EQ(packet->time, 7);
    EXPECT_TRUE(packet->sound);
}

TEST(LivePackets, SoundTellsWhenItCameWhereThatIsAskedFor) {
    const std::string payload = "opus";
    EXPECT_EQ(makeTimedSound(packetOf(payload), 0x0000000A01020304, 0x0506)->bytes,
              std::string("\x82\x18\x04\x03\x02\x01\xE0\x01\x00\x00"
                          "\x04\x03\x02\x01\x0A\x00\x00\x00\x06\x05\x00\x00opus",
                          26));
}

TEST(LivePackets, AMessageOfMoreThan125BytesHasALongLength) {
    EXPECT_EQ(soundOf(std::string(117, 'a'))->bytes.substr(0, 2), "\x82\x7D");
    EXPECT_EQ(soundOf(std::string(118, 'a'))->bytes.substr(0, 4),
              std::string("\x82\x7E\x00\x7E", 4));
    EXPECT_EQ(soundOf(std::string(1920, 'a'))->bytes.substr(0, 4),
              std::string("\x82\x7E\x07\x88", 4));
}

TEST(LivePackets, TheFormatIsWrittenAsJson) {
    const PacketPtr packet = makeFormat(false, 48000, "Anna's \"radio\"", 0);
    EXPECT_EQ(packet->bytes.substr(2),
              R"({"format":"pcm","sampleRate":48000,"channels":2,"title":"Anna's \"radio\""})");
    EXPECT_FALSE(packet->sound);
    EXPECT_EQ(makeWaiting(0)->bytes, "\x81\x13{\"state\":\"waiting\"}");
}

TEST(LivePackets, ATitleThatIsNoUtf8IsMended) {
    const std::string text = makeFormat(true, 44100, "K\377che", 0)->bytes;
    EXPECT_NE(text.find("K\xEF\xBF\xBD\143he"), std::string::npos);
}

TEST(LivePackets, AChunkOffersItsContentWithoutTheFrame) {
    const PacketPtr packet = makeChunk("0123456789abcdef0", true, 0);
    EXPECT_EQ(packet->view(true), "11\r\n0123456789abcdef0\r\n");
    EXPECT_EQ(packet->view(false), "0123456789abcdef0");
}

}  // namespace
