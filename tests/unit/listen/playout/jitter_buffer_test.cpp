#include "listen/playout/jitter_buffer.h"

#include <memory>

#include <gtest/gtest.h>

#include "tests/unit/listen/packets.h"

using vxlisten::JitterBuffer;
using vxlisten::StoredPacket;
using Inserted = JitterBuffer::Inserted;

namespace {

class JitterBufferTest : public testing::Test {
  protected:
    Inserted insert(std::uint32_t seq, std::uint32_t stream = 1) {
        const packets::Bytes bytes = packets::raw(seq);
        const auto packet = vxlisten::parseAudioPacket(bytes.data(), bytes.size());
        stored_->assign(*packet, stream, 0);
        return buffer_.insert(*stored_);
    }

    /// Number of the packet whose turn it is, -1 when it is missing.
    std::int64_t turn() {
        const StoredPacket* const packet = buffer_.front();
        return packet != nullptr ? static_cast<std::int64_t>(packet->head.seq) : -1;
    }

    std::unique_ptr<StoredPacket> stored_ = std::make_unique<StoredPacket>();
    JitterBuffer buffer_;
};

}  // namespace

TEST_F(JitterBufferTest, PacketsComeOutInOrder) {
    EXPECT_EQ(insert(10), Inserted::NewStream);
    EXPECT_EQ(insert(12), Inserted::Kept);
    EXPECT_EQ(insert(11), Inserted::Kept);
    EXPECT_EQ(buffer_.depthFrames(), 3u * 338);
    for (std::int64_t expected = 10; expected <= 12; ++expected) {
        EXPECT_EQ(turn(), expected);
        buffer_.advance();
    }
    EXPECT_TRUE(buffer_.empty());
    EXPECT_EQ(turn(), -1);
}

TEST_F(JitterBufferTest, AMissingPacketHasItsTurn) {
    insert(10);
    insert(12);
    buffer_.advance();
    EXPECT_EQ(turn(), -1);
    EXPECT_FALSE(buffer_.empty());
    buffer_.advance();
    EXPECT_EQ(turn(), 12);
}

TEST_F(JitterBufferTest, LateAndDoublePacketsAreNotKept) {
    insert(10);
    insert(11);
    buffer_.advance();
    EXPECT_EQ(insert(10), Inserted::Late);
    EXPECT_EQ(insert(11), Inserted::Duplicate);
    EXPECT_EQ(buffer_.depthFrames(), 338u);
}

TEST_F(JitterBufferTest, ANewStreamThrowsTheOldOneAway) {
    insert(10);
    insert(11);
    EXPECT_EQ(insert(3, 2), Inserted::NewStream);
    EXPECT_EQ(turn(), 3);
    EXPECT_EQ(buffer_.depthFrames(), 338u);
}

TEST_F(JitterBufferTest, ABurstBeyondItsRoomDropsTheOldest) {
    for (std::uint32_t seq = 0; seq < JitterBuffer::CAPACITY + 5; ++seq) {
        insert(seq);
    }
    EXPECT_EQ(turn(), 5);
    EXPECT_EQ(buffer_.depthFrames(), JitterBuffer::CAPACITY * 338);
}

TEST_F(JitterBufferTest, AFarLeapLeavesOnlyTheNewPacket) {
    insert(10);
    insert(100000);
    EXPECT_LE(buffer_.depthFrames(), JitterBuffer::CAPACITY * 338);
    while (turn() < 0) {
        buffer_.advance();
    }
    EXPECT_EQ(turn(), 100000);
}

TEST_F(JitterBufferTest, NumbersWrap) {
    insert(0xFFFFFFFFU);
    insert(0);
    buffer_.advance();
    EXPECT_EQ(turn(), 0);
    EXPECT_EQ(insert(0xFFFFFFFFU), Inserted::Late);
}
