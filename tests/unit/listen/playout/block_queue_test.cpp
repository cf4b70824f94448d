#include "listen/playout/block_queue.h"

#include <gtest/gtest.h>

using vxlisten::BlockQueue;
using vxlisten::Join;

namespace {

class BlockQueueTest : public testing::Test {
  protected:
    /// Pushes a block whose first sample is `value`.
    void push(std::int16_t value, Join join = Join::Continues) {
        const std::array<std::int16_t, 2> frame = {value, value};
        queue_.push({frame.data(), 1, 48000, join, false}, 0);
    }

    BlockQueue queue_;
};

}  // namespace

TEST_F(BlockQueueTest, BlocksWaitInTheirOrderAndKnowTheirPlaces) {
    push(5, Join::NewStream);
    push(6);
    push(7, Join::NewStream);
    ASSERT_EQ(queue_.size(), 3u);
    EXPECT_EQ(queue_[1].frames[0], 6);
    EXPECT_EQ(queue_[1].position, 1u);
    EXPECT_EQ(queue_[2].position, 0u);
    queue_.pop();
    EXPECT_EQ(queue_[0].frames[0], 6);
}

TEST_F(BlockQueueTest, TheFirstBlockBeginsAStreamWhateverItsConnectionHeardBefore) {
    push(5);
    EXPECT_EQ(queue_[0].join, Join::NewStream);
}

TEST_F(BlockQueueTest, WhatFollowsABlockThatFoundNoRoomIsANewStream) {
    std::size_t room = 0;
    for (push(0); queue_.size() > room; push(0)) {
        room = queue_.size();
    }
    queue_.pop();
    push(1000);
    const auto& newest = queue_[room - 1];
    EXPECT_EQ(newest.frames[0], 1000);
    EXPECT_EQ(newest.join, Join::NewStream);
    EXPECT_EQ(newest.position, 0u);
}

TEST_F(BlockQueueTest, WhatComesInTheTimeOfADelayFindsRoomWhileNobodyReads) {
    BlockQueue queue(10);
    const std::array<std::int16_t, 2> frame{};
    const std::size_t blocks = 20 * 48000 / 338;
    for (std::size_t i = 0; i < blocks; ++i) {
        queue.push({frame.data(), 1, 48000, Join::Continues, false}, 0);
    }
    EXPECT_EQ(queue.size(), blocks);
}
