#include "stream/queue_trim.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/stream/queued_peer.h"
#include "tests/unit/stream/recorded_console.h"

// Compiled once per generation of ENet; see queued_peer.h.

namespace {

constexpr std::uint32_t SEQ = 45;
constexpr std::uint32_t REPORT_SEQ = 300;

class QueueTrim : public testing::Test {
  protected:
    QueueTrim() {
        recordedConsole().clear();
        slot.reliable = 1;
        slot.peer = &queue.peer;
    }

    /// What a trim prints for `waiting` commands of which it removes `removed`.
    static std::vector<std::string> trimLines(int waiting, int removed, int sent = 0) {
        return {"Clearing outgoing msg queue, outgoing/sent queue sizes: " +
                    std::to_string(waiting) + "/" + std::to_string(sent) + "\n",
                "Removed " + std::to_string(removed) + " outgoing messages\n"};
    }

    QueuedPeer queue;
    ClientSlot slot;
};

TEST_F(QueueTrim, SeventySixUnsentCommandsAllGo) {
    queue.queueReliable(76);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_TRUE(queue.waiting().empty());
    EXPECT_EQ(QueuedPeer::destroyedPackets, 76);
    EXPECT_EQ(recordedConsole(), trimLines(76, 76));
}

TEST_F(QueueTrim, SeventyFiveUnsentCommandsStay) {
    queue.queueReliable(75);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waiting().size(), 75U);
    EXPECT_EQ(queue.counter(), 75);
    EXPECT_EQ(QueuedPeer::destroyedPackets, 0);
    EXPECT_TRUE(recordedConsole().empty());
}

TEST_F(QueueTrim, BestEffortClientIsNeverTrimmed) {
    slot.reliable = 0;
    queue.queueReliable(200);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waiting().size(), 200U);
    EXPECT_EQ(queue.counter(), 200);
    EXPECT_TRUE(recordedConsole().empty());
}

TEST_F(QueueTrim, BestEffortClientWithALongQueueIsReported) {
    slot.reliable = 0;
    queue.queueReliable(200);
    trimOutgoingQueue(slot, REPORT_SEQ);
    EXPECT_EQ(recordedConsole(), std::vector<std::string>{"Outgoing/sent queue sizes: 200/0\n"});
}

TEST_F(QueueTrim, CommandsThatWentOutStayInOrder) {
    std::vector<int> kept;
    for (int i = 0; i < 100; ++i) {
        ENetOutgoingCommand& command = queue.queueReliable(enet_uint8{0});
        if (i < 20) {
            command.sendAttempts = static_cast<enet_uint16>(1 + i % 3);
            kept.push_back(command.reliableSequenceNumber);
        }
    }
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waitingNumbers(), kept);
    EXPECT_EQ(queue.counter(), 20);
    EXPECT_EQ(recordedConsole(), trimLines(100, 80));
}

TEST_F(QueueTrim, UnsentCommandsBetweenResendsGo) {
    for (int i = 0; i < 90; ++i) {
        queue.queueReliable(enet_uint8{0}).sendAttempts = static_cast<enet_uint16>(i % 3 == 0);
    }
    trimOutgoingQueue(slot, SEQ);
    std::vector<int> expected;
    for (int number = 1; number <= 90; number += 3) {
        expected.push_back(number);
    }
    EXPECT_EQ(queue.waitingNumbers(), expected);
    EXPECT_EQ(QueuedPeer::destroyedPackets, 60);
}

TEST_F(QueueTrim, OnlyResendsWaitingRemovesNothing) {
    for (int i = 0; i < 80; ++i) {
        queue.queueReliable(enet_uint8{0}).sendAttempts = 1;
    }
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waiting().size(), 80U);
    EXPECT_EQ(queue.counter(), 80);
    EXPECT_EQ(recordedConsole(), trimLines(80, 0));
}

TEST_F(QueueTrim, CounterEndsBelowTheFirstRemovedCommand) {
    queue.setCounter(4999);
    queue.queueReliable(100);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.counter(), 4999);
}

TEST_F(QueueTrim, QueueAcrossTheWrapRollsBackToItsFirstNumber) {
    for (int before = 0; before <= 80; ++before) {
        QueuedPeer wrapping;
        slot.peer = &wrapping.peer;
        wrapping.setCounter(65535 - before);
        wrapping.queueReliable(81);
        trimOutgoingQueue(slot, SEQ);
        ASSERT_EQ(wrapping.counter(), 65535 - before);
    }
}

TEST_F(QueueTrim, ResendsBeforeTheWrapKeepTheirNumbers) {
    queue.setCounter(65500);
    for (int i = 0; i < 100; ++i) {
        queue.queueReliable(enet_uint8{0}).sendAttempts = static_cast<enet_uint16>(i < 10);
    }
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waitingNumbers().back(), 65510);
    EXPECT_EQ(queue.counter(), 65510);
}

TEST_F(QueueTrim, EachChannelRollsBackOnItsOwn) {
    queue.setCounter(65530, 0);
    queue.setCounter(300, 1);
    for (int i = 0; i < 50; ++i) {
        queue.queueReliable(enet_uint8{0});
        queue.queueReliable(enet_uint8{1});
    }
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.counter(0), 65530);
    EXPECT_EQ(queue.counter(1), 300);
}

TEST_F(QueueTrim, ChannelWithoutRemovedCommandsKeepsItsCounter) {
    queue.setCounter(777, 1);
    queue.queueReliable(76);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.counter(1), 777);
}

TEST_F(QueueTrim, PingsStayAndAreNotCountedAsRemoved) {
    queue.queuePing();
    queue.queueReliable(75);
    queue.queuePing();
    trimOutgoingQueue(slot, SEQ);
    ASSERT_EQ(queue.waiting().size(), 2U);
    for (const ENetOutgoingCommand* const command : queue.waiting()) {
        EXPECT_EQ(command->command.header.channelID, 255);
    }
    EXPECT_EQ(queue.counter(), 0);
    EXPECT_EQ(recordedConsole(), trimLines(77, 75));
}

TEST_F(QueueTrim, UnreliableCommandsNeitherCountNorGo) {
    for (int i = 0; i < 60; ++i) {
        queue.queueUnreliable();
    }
    queue.queueReliable(75);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waiting().size(), 135U);
    EXPECT_TRUE(recordedConsole().empty());

    queue.queueReliable(1);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.waiting().size(), 60U);
    EXPECT_TRUE(queue.waitingNumbers().empty());
    EXPECT_EQ(recordedConsole(), trimLines(76, 76));
}

TEST_F(QueueTrim, PacketOfFragmentsIsDestroyedOnceWithItsLastFragment) {
    for (int i = 0; i < 40; ++i) {
        queue.queueFragments(2);
    }
    trimOutgoingQueue(slot, SEQ);
    EXPECT_TRUE(queue.waiting().empty());
    EXPECT_EQ(QueuedPeer::destroyedPackets, 40);
    EXPECT_EQ(queue.counter(), 0);
}

TEST_F(QueueTrim, PacketWithOneFragmentSentLosesOnlyTheOthers) {
    const auto begun = queue.queueFragments(3);
    begun[0]->sendAttempts = 1;
    queue.queueReliable(80);
    trimOutgoingQueue(slot, SEQ);
    ASSERT_EQ(queue.waiting(), std::vector<ENetOutgoingCommand*>{begun[0]});
    EXPECT_EQ(begun[0]->packet->referenceCount, 1U);
    EXPECT_EQ(QueuedPeer::destroyedPackets, 80);
    EXPECT_EQ(queue.counter(), 1);
}

TEST_F(QueueTrim, CommandWithoutAPacketIsRemovedToo) {
    ENetOutgoingCommand& bare = queue.queueReliable(enet_uint8{0});
    queue.queueReliable(80);
    enet_packet_destroy(bare.packet);
    bare.packet = nullptr;
    QueuedPeer::destroyedPackets = 0;
    trimOutgoingQueue(slot, SEQ);
    EXPECT_TRUE(queue.waiting().empty());
    EXPECT_EQ(QueuedPeer::destroyedPackets, 80);
}

TEST_F(QueueTrim, DataTotalLosesExactlyTheRemovedCommands) {
    queue.peer.outgoingDataTotal = 5000;
    queue.queueUnreliable();
    queue.queuePing();
    queue.queueReliable(enet_uint8{0}).sendAttempts = 2;
    const enet_uint32 whatStays = queue.peer.outgoingDataTotal;
    queue.queueFragments(3);
    queue.queueReliable(90);
    ASSERT_GT(queue.peer.outgoingDataTotal, whatStays);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.peer.outgoingDataTotal, whatStays);
}

TEST_F(QueueTrim, DataTotalThatEnetHasClearedMeanwhileDoesNotFallBelowZero) {
    queue.queueReliable(76);
    queue.peer.outgoingDataTotal = 75 * QueuedPeer::DATA_LENGTH;  // Less than what is removed.
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(queue.peer.outgoingDataTotal, 0U);
}

TEST_F(QueueTrim, SentCommandsAreReportedAndStay) {
    for (int i = 0; i < 48; ++i) {
        queue.addSent();
    }
    queue.queueReliable(76);
    trimOutgoingQueue(slot, SEQ);
    EXPECT_EQ(enet_list_size(&queue.peer.sentReliableCommands), 48U);
    EXPECT_EQ(queue.counter(), 48);
    EXPECT_EQ(recordedConsole(), trimLines(76, 76, 48));
}

TEST_F(QueueTrim, QueueSizesAreReportedOnlyAtMultiplesOfThreeHundred) {
    queue.addSent();
    queue.queueReliable(2);
    std::vector<std::uint32_t> reported;
    for (std::uint32_t seq = 0; seq <= 1200; seq += QUEUE_CHECK_INTERVAL) {
        recordedConsole().clear();
        trimOutgoingQueue(slot, seq);
        if (!recordedConsole().empty()) {
            EXPECT_EQ(recordedConsole(),
                      std::vector<std::string>{"Outgoing/sent queue sizes: 2/1\n"});
            reported.push_back(seq);
        }
    }
    EXPECT_EQ(reported, (std::vector<std::uint32_t>{0, 300, 600, 900, 1200}));
}

TEST_F(QueueTrim, QueueOfOneIsNotReported) {
    queue.queueReliable(1);
    trimOutgoingQueue(slot, REPORT_SEQ);
    EXPECT_TRUE(recordedConsole().empty());
}

TEST_F(QueueTrim, OverlongQueueAtAReportNumberIsTrimmedNotReported) {
    queue.queueReliable(76);
    trimOutgoingQueue(slot, REPORT_SEQ);
    EXPECT_EQ(recordedConsole(), trimLines(76, 76));
}

}  // namespace
