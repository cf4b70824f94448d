// Clients that send messages faster than they are handled, one in each service step.

#include "stream/event_backlog.h"

#include <algorithm>
#include <string>
#include <vector>

#include "stream/client_table.h"
#include "stream/network_host.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/support/live_server.h"

namespace {

class EventBacklog : public LiveServer {
  protected:
    static ENetPeer& peerOf(const TestClient& client) {
        return *clientConn.at(static_cast<std::size_t>(slotOf(client))).peer;
    }

    static std::size_t waitingMessages(const TestClient& client) {
        return enet_list_size(&peerOf(client).dispatchedCommands);
    }

    /// Puts messages into the server's socket and lets it handle the first.
    static void fillWith(TestClient& client, std::uint32_t messages) {
        for (std::uint32_t id = 0; id < messages; ++id) {
            client.send(controlMessage(MARK + id), 1);
        }
        while (waitingMessages(client) == 0) {
            serviceHost();
            client.service();
        }
    }

    static constexpr std::uint32_t MARK = 100000;
};

TEST_F(EventBacklog, AcknowledgementsAreReadWhileMessagesWait) {
    TestClient& busy = connect(COMPANY | 1);
    TestClient& listener = stream(1);
    fillWith(busy, 50);
    std::vector<char> block(wire::RAW_BUFFER_LENGTH, 'a');
    processBuffer(block.data(), static_cast<int>(block.size()), true);
    ASSERT_FALSE(enet_list_empty(&peerOf(listener).sentReliableCommands));
    for (int step = 0; step < 30 && !enet_list_empty(&peerOf(listener).sentReliableCommands);
         ++step) {
        listener.service();
        serviceHost();
    }
    EXPECT_GT(waitingMessages(busy), 0U);
    EXPECT_TRUE(enet_list_empty(&peerOf(listener).sentReliableCommands));
}

TEST_F(EventBacklog, OneStepStillHandlesOneMessage) {
    TestClient& busy = connect(COMPANY | 1);
    fillWith(busy, 20);
    for (std::size_t waiting = waitingMessages(busy); waiting > 0; --waiting) {
        printed();
        EXPECT_EQ(serviceHost(), 1);
        EXPECT_EQ(waitingMessages(busy), waiting - 1);
        const std::string line = printed();
        EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
    }
}

TEST_F(EventBacklog, NetworkIsServicedOnceWhenNothingWaits) {
    TestClient& client = connect(COMPANY | 1);
    client.send(controlMessage(2));
    resetCalls();
    int calls = 0;
    for (; countOf(Call::EnetPacketDestroy) == 0 && calls < 5000; ++calls) {
        serviceHost();
    }
    EXPECT_EQ(countOf(Call::EnetHostService), calls);
}

TEST_F(EventBacklog, ErrorWhileMessagesWaitIsPrintedAndReturnedAndTheNextStepGoesOn) {
    constexpr int ERROR = -7;  // None that ENet itself would return.
    TestClient& busy = connect(COMPANY | 1);
    fillWith(busy, 20);
    const std::size_t waiting = waitingMessages(busy);
    ASSERT_GE(waiting, 3U);
    printed();
    failCall(Call::EnetHostService, 2, ERROR);
    EXPECT_EQ(serviceHost(), ERROR);
    EXPECT_EQ(waitingMessages(busy), waiting - 1) << "the event before the error is handled";
    const std::string lines = printed();
    EXPECT_NE(lines.find("Got unrecognized message ID "), std::string::npos);
    EXPECT_NE(lines.find("\nError returned from service call\n"), std::string::npos);
    EXPECT_EQ(serviceHost(), 1);
    EXPECT_EQ(waitingMessages(busy), waiting - 2);
}

TEST_F(EventBacklog, OldestOfTooManyMessagesAreDroppedAndTheLastIsObeyed) {
    TestClient& busy = connect(COMPANY | 1);
    constexpr std::uint32_t MESSAGES = 3 * MAX_WAITING_MESSAGES;
    for (std::uint32_t id = 0; id < MESSAGES; ++id) {
        enet_peer_send(busy.peer, 0,
                       enet_packet_create(controlMessage(MARK + id).data(), wire::HEADER_LENGTH,
                                          ENET_PACKET_FLAG_UNSEQUENCED));
        if (id % 32 == 31) {
            enet_host_flush(busy.host);
        }
    }
    const std::string last =
        "Got unrecognized message ID " + std::to_string(MARK + MESSAGES - 1) + "\n";
    std::size_t most = 0;
    std::string lines;
    pumpUntil([&] {
        most = std::max(most, waitingMessages(busy));
        lines += printed();
        return lines.find(last) != std::string::npos;
    });
    EXPECT_LE(most, MAX_WAITING_MESSAGES);
    EXPECT_LT(std::count(lines.begin(), lines.end(), '\n'), MESSAGES);
}

TEST_F(EventBacklog, MessageOfMoreBytesThanTheBoundIsNotTaken) {
    limitMessages(*server);
    TestClient& client = connect(COMPANY | 1);
    tell(client, std::vector<unsigned char>(MAX_MESSAGE_BYTES, 'x'));
    printed();
    client.send(std::vector<unsigned char>(MAX_MESSAGE_BYTES + 1, 'x'));
    pumpFor(300);
    EXPECT_EQ(printed(), "");
    EXPECT_TRUE(enet_list_empty(&peerOf(client).channels[0].incomingReliableCommands));
}

}  // namespace
