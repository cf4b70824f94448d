// The queue check where the send path calls it; what it removes is queue_trim_test.cpp's subject.

#include <enet/enet.h>

#include "stream/client_table.h"
#include "stream/enet_unsent.h"
#include "stream/queue_trim.h"
#include "stream/service_step.h"
#include "tests/support/named_case.h"
#include "tests/unit/stream/send_path_fixture.h"

namespace {

/// A packet of either pass and how many commands ENet makes of it.
struct CheckedPacket : NamedCase {
    std::uint32_t request;
    int length;
    std::size_t commands;
};

/// The queue check where the send path calls it, with a client whose queue is too long.
class QueueCheck : public SendPath, public testing::WithParamInterface<CheckedPacket> {
  protected:
    static constexpr std::size_t TOO_MANY = QUEUE_TRIM_THRESHOLD + 1;

    TestClient& streamingClient() {
        TestClient& client = stream(GetParam().request);
        pumpUntil([] { return enet_list_empty(&peer().sentReliableCommands); });
        printed();
        return client;
    }
    /// Queues commands that have never been sent.
    static void fillQueue() {
        for (std::size_t i = 0; i < TOO_MANY; ++i) {
            enet_peer_send(&peer(), 0, enet_packet_create("old", 3, ENET_PACKET_FLAG_RELIABLE));
        }
    }
    void processAt(std::uint32_t seq) {
        seqNum = seq;
        seqNumComp = seq;
        process(GetParam().length);
    }
    /// Reliable commands on the audio channel, sent or not.
    static std::size_t audioCommands() {
        std::size_t count = 0;
        const auto countAudio = [&count](const ENetOutgoingCommand& command) {
            count += command.command.header.channelID != ENET_CONTROL_CHANNEL ? 1 : 0;
        };
        visitWaitingReliable(peer(), countAudio);
        visitReliableOf(peer().sentReliableCommands, countAudio);
        return count;
    }
    static ENetPeer& peer() { return *clientConn[0].peer; }
};

TEST_P(QueueCheck, RunsBeforeThePacketOfADivisibleNumberIsQueued) {
    TestClient& client = streamingClient();
    for (const std::uint32_t seq : {0U, 15U, 30U, 4294967295U}) {
        SCOPED_TRACE(seq);
        fillQueue();
        ASSERT_EQ(audioCommands(), TOO_MANY);
        processAt(seq);
        ASSERT_EQ(audioCommands(), GetParam().commands) << "of this packet, and no other";
        ASSERT_EQ(printed(),
                  "Clearing outgoing msg queue, outgoing/sent queue sizes: 76/0\n"
                  "Removed 76 outgoing messages\n");
        ASSERT_EQ(receive(client).header.seq, seq);
        ASSERT_EQ(client.packets.size(), received) << "what was removed came all the same";
        pumpUntil([] { return enet_list_empty(&peer().sentReliableCommands); });
    }
}

TEST_P(QueueCheck, DoesNotRunAtOtherNumbers) {
    TestClient& client = streamingClient();
    for (const std::uint32_t seq : {1U, 2U, 3U, 4U, 5U, 10U, 14U, 16U, 29U, 100U, 4294967294U}) {
        SCOPED_TRACE(seq);
        const std::size_t before = client.packets.size();
        fillQueue();
        processAt(seq);
        ASSERT_EQ(audioCommands(), TOO_MANY + GetParam().commands);
        pumpUntil([&client, before] { return client.packets.size() > before + TOO_MANY; });
        ASSERT_EQ(client.packets.back().header.seq, seq);
        ASSERT_EQ(printed(), "");
        pumpUntil([] { return enet_list_empty(&peer().sentReliableCommands); });
    }
}

INSTANTIATE_TEST_SUITE_P(SendPath, QueueCheck,
                         testing::Values(CheckedPacket{"RawPacket", RELIABLE, RAW, 1},
                                         CheckedPacket{"FallbackInTwoFragments", RELIABLE | rate(4),
                                                       COMPRESSED, 2}),
                         CASE_NAME);

}  // namespace
