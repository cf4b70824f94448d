// Clients that send messages faster than they are handled, one in each service step.

#include "stream/event_backlog.h"

#include <algorithm>
#include <string>
#include <vector>

#include "stream/client_table.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/unit/stream/live_server.h"

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

    /// A new client gets the server's answer to its connect, but does not acknowledge it yet.
    static void answerConnect(const TestClient& newcomer) {
        ENetEvent event = {};
        for (int step = 0; step < 5000 && event.type != ENET_EVENT_TYPE_CONNECT; ++step) {
            serviceHost();
            enet_host_service(newcomer.host, &event, 0);
        }
        ASSERT_EQ(event.type, ENET_EVENT_TYPE_CONNECT);
    }

    static constexpr std::uint32_t MARK = 100000;
};

TEST_F(EventBacklog, AcknowledgementsAreReadWhileMessagesWait) {
    TestClient& busy = connect(COMPANY | 1);
    TestClient& listener = stream(1);
    fillWith(busy, 50);
    sendBlock();
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

TEST_F(EventBacklog, BestEffortRequestInTheDatagramThatCompletesAConnectionIsObeyed) {
    TestClient& busy = connect(COMPANY | 1);
    fillWith(busy, 50);
    clients.push_back(std::make_unique<TestClient>(COMPANY | 1));
    TestClient& newcomer = *clients.back();
    answerConnect(newcomer);
    const std::vector<unsigned char> request = dataRequest(0);
    enet_peer_send(newcomer.peer, 0, enet_packet_create(request.data(), request.size(), 0));
    ASSERT_GT(waitingMessages(busy), 10U);
    enet_host_flush(newcomer.host);  // Together with the acknowledgement of the server's answer.
    pumpUntil([] { return connectCount == 2; });
    pumpUntil([&newcomer] {
        return clientConn.at(static_cast<std::size_t>(slotOf(newcomer))).dataRequested == 1;
    });
}

TEST_F(EventBacklog, WaitingMessagesAndNewConnectionsTakeTurns) {
    constexpr int NEWCOMERS = 4;
    TestClient& busy = connect(COMPANY | 1);
    for (int i = 0; i < NEWCOMERS; ++i) {
        clients.push_back(std::make_unique<TestClient>(COMPANY | 1));
        answerConnect(*clients.back());
    }
    fillWith(busy, 20);
    const std::size_t waiting = waitingMessages(busy);
    ASSERT_GE(waiting, 10U);
    for (const auto& client : clients) {
        client->service();  // The acknowledgements that complete the connections.
    }
    for (int step = 0; step < NEWCOMERS; ++step) {
        EXPECT_EQ(serviceHost(), 1);
    }
    EXPECT_EQ(connectCount, 1 + NEWCOMERS / 2);
    EXPECT_EQ(waitingMessages(busy), waiting - NEWCOMERS / 2);
}

TEST_F(EventBacklog, ErrorWhileMessagesWaitIsPrintedAndReturnedAndTheNextStepGoesOn) {
    constexpr int ERROR = -7;  // None that ENet itself would return.
    TestClient& busy = connect(COMPANY | 1);
    fillWith(busy, 20);
    const std::size_t waiting = waitingMessages(busy);
    ASSERT_GE(waiting, 3U);
    printed();
    failCall(Call::EnetHostService, 1, ERROR);
    EXPECT_EQ(serviceHost(), ERROR);
    EXPECT_EQ(printed(), "Error returned from service call\n");
    EXPECT_EQ(serviceHost(), 1);
    EXPECT_EQ(waitingMessages(busy), waiting - 1);
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

}  // namespace
