#include "stream/client_table.h"

#include <algorithm>
#include <ctime>

#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/unit/stream/live_server.h"

namespace {

constexpr std::uint32_t ALONE = 0;

class ClientTable : public LiveServer {
  protected:
    /// Ten multi-client clients, one per slot in order.
    void fillTable(std::uint32_t version = 1) {
        for (std::size_t i = 0; i < CLIENT_SLOTS; ++i) {
            TestClient& client = connect(COMPANY | version);
            ASSERT_EQ(slotOf(client), static_cast<int>(i));
        }
        printed();
    }
    static void setTimes(std::time_t time) {
        for (ClientSlot& slot : clientConn) {
            slot.connectTime = time;
        }
    }
    static std::string connectLine(const TestClient& client, int version) {
        return "A new client connected from 127.0.0.1:" + std::to_string(client.port()) +
               " (prot ver " + std::to_string(version) + ")\n";
    }
    void expectDisconnected(TestClient& client, std::uint32_t data) {
        pumpUntil([&client] { return client.disconnectData.has_value(); });
        EXPECT_EQ(client.disconnectData, data);
    }
};

TEST_F(ClientTable, FirstClientTakesTheFirstSlotWithTheDefaults) {
    const std::time_t before = std::time(nullptr);
    const TestClient& client = connect(COMPANY | 7);
    const ClientSlot& slot = clientConn[0];
    ASSERT_EQ(slotOf(client), 0);
    EXPECT_EQ(slot.protocolVersion, 7U);
    EXPECT_EQ(slot.multiClient, 1);
    EXPECT_EQ(slot.reliable, 1);
    EXPECT_EQ(slot.rateCode, 0U);
    EXPECT_EQ(slot.dataRequested, 0);
    EXPECT_GE(slot.connectTime, before);
    EXPECT_LE(slot.connectTime, std::time(nullptr));
    EXPECT_FALSE(isStreaming(slot));
    EXPECT_EQ(connectCount, 1);
    EXPECT_EQ(core().statusReports, (std::vector<StatusReport>{{1, "", false}}));
    EXPECT_EQ(printed(), connectLine(client, 7));
}

TEST_F(ClientTable, ConnectDataBits8To30AreIgnored) {
    connect(0x7FFFFF05U);
    EXPECT_EQ(clientConn[0].protocolVersion, 5U);
    EXPECT_EQ(clientConn[0].multiClient, 0);
    connect(0x800000FFU);
    EXPECT_EQ(clientConn[1].protocolVersion, 255U);
    EXPECT_EQ(clientConn[1].multiClient, 1);
}

TEST_F(ClientTable, FreedSlotIsTakenByTheNextClient) {
    TestClient& first = connect(COMPANY | 1);
    connect(COMPANY | 1);
    first.leave();
    pumpUntil([] { return connectCount == 1; });
    EXPECT_EQ(clientConn[0].peer, nullptr);
    EXPECT_EQ(slotOf(connect(COMPANY | 1)), 0);
}

TEST_F(ClientTable, EleventhClientReplacesTheOldest) {
    fillTable();
    setTimes(1000);
    clientConn[4].connectTime = 999;
    clientConn[7].connectTime = 999;  // As old, but of a higher index.
    const TestClient& eleventh = connect(COMPANY | 1);
    EXPECT_EQ(slotOf(eleventh), 4);
    EXPECT_EQ(printed(), connectLine(eleventh, 1));
    expectDisconnected(*clients[4], 101);
    EXPECT_EQ(countOf(Call::EnetPeerDisconnect), 1);
    EXPECT_EQ(slotOf(*clients[7]), 7);
}

TEST_F(ClientTable, TimesBeyondTheSearchStartReplaceTheFirst) {
    fillTable();
    setTimes(std::time(nullptr) + 100000);
    EXPECT_EQ(slotOf(connect(COMPANY | 1)), 0);
}

TEST_F(ClientTable, TimeUpTo100SecondsAheadIsStillFound) {
    fillTable();
    setTimes(std::time(nullptr) + 100000);
    clientConn[6].connectTime = std::time(nullptr) + 50;
    EXPECT_EQ(slotOf(connect(COMPANY | 1)), 6);
}

TEST_F(ClientTable, ReplacedOldClientIsForgottenButNotDisconnected) {
    fillTable(0);
    setTimes(1000);
    EXPECT_EQ(slotOf(connect(COMPANY | 1)), 0);
    pumpFor(150);
    EXPECT_TRUE(clients[0]->connected);
    EXPECT_EQ(countOf(Call::EnetPeerDisconnect), 0);
    EXPECT_EQ(connectCount, 11);
}

TEST_F(ClientTable, ReconnectFromTheOldestsAddressSkipsItsDisconnect) {
    fillTable();
    setTimes(1000);
    clientConn[3].connectTime = 900;
    const std::uint16_t port = clients[3]->port();
    vanish(*clients[3]);
    const TestClient& again = connect(COMPANY | 1, port);
    EXPECT_EQ(slotOf(again), 3);
    EXPECT_EQ(countOf(Call::EnetPeerDisconnect), 0);
    EXPECT_EQ(printed(), connectLine(again, 1) +
                             "Connect for same ip/port as current connection, skipping "
                             "disconnect\n");
}

TEST_F(ClientTable, ReconnectToAFullTableReplacesTheOldestNotItsOwnSlot) {
    fillTable();
    setTimes(1000);
    clientConn[0].connectTime = 900;
    const std::uint16_t port = clients[3]->port();
    vanish(*clients[3]);
    connect(COMPANY | 1, port);
    expectDisconnected(*clients[0], 101);
    EXPECT_NE(clientConn[0].peer, nullptr);
    EXPECT_EQ(clientConn[0].peer->address.port, port);
    EXPECT_EQ(clientConn[3].peer->address.port, port) << "a duplicate slot stays";
}

TEST_F(ClientTable, SecondClientDropsAFirstThatWantsNoCompany) {
    connect(ALONE | 1);
    const TestClient& second = connect(ALONE | 1);
    EXPECT_EQ(slotOf(second), 1) << "the slot is chosen before the first one is dropped";
    EXPECT_EQ(clientConn[0].peer, nullptr);
    EXPECT_EQ(connectCount, 2) << "a dropped client counts until it is disconnected";
    expectDisconnected(*clients[0], 101);
    pumpUntil([] { return connectCount == 1; });
    EXPECT_EQ(slotOf(second), 1);
}

TEST_F(ClientTable, DroppedSlotIsAllZero) {
    TestClient& first = connect(ALONE | 1);
    tell(first, dataRequest(0x41));
    connect(COMPANY | 1);
    EXPECT_EQ(clientConn[0].protocolVersion, 0U);
    EXPECT_EQ(clientConn[0].reliable, 0);
    EXPECT_EQ(clientConn[0].rateCode, 0U);
    EXPECT_EQ(clientConn[0].dataRequested, 0);
    EXPECT_EQ(clientConn[0].connectTime, 0);
}

TEST_F(ClientTable, NewcomerWithoutCompanyIsDroppedByTheNextOneOnly) {
    const TestClient& social = connect(COMPANY | 1);
    connect(ALONE | 1);
    EXPECT_EQ(slotOf(social), 0);
    const TestClient& next = connect(COMPANY | 1);
    EXPECT_EQ(slotOf(next), 2);
    EXPECT_EQ(clientConn[1].peer, nullptr);
    EXPECT_EQ(slotOf(social), 0);
    expectDisconnected(*clients[1], 101);
}

TEST_F(ClientTable, FullTableIsAlsoClearedOfTheClientsThatWantNoCompany) {
    fillTable();
    setTimes(1000);
    clientConn[2].connectTime = 900;
    clientConn[8].multiClient = 0;
    connect(COMPANY | 1);
    EXPECT_EQ(clientConn[8].peer, nullptr);
    expectDisconnected(*clients[2], 101);
    expectDisconnected(*clients[8], 101);
}

TEST_F(ClientTable, OldClientWithoutCompanyIsForgottenNotDisconnected) {
    TestClient& old = connect(ALONE | 0);
    connect(COMPANY | 1);
    EXPECT_EQ(clientConn[0].peer, nullptr);
    pumpFor(150);
    EXPECT_TRUE(old.connected);
    EXPECT_EQ(connectCount, 2);
    old.leave();
    pumpUntil([] { return connectCount == 1; });
    EXPECT_EQ(core().statusReports.back(), (StatusReport{1, std::nullopt, false}));
}

TEST_F(ClientTable, DisconnectFreesTheSlotAndIsReportedWithoutAName) {
    TestClient& client = connect(COMPANY | 1);
    printed();
    client.leave();
    pumpUntil([] { return connectCount == 0; });
    EXPECT_EQ(clientConn[0].peer, nullptr);
    EXPECT_EQ(clientConn[0].protocolVersion, 0U);
    EXPECT_EQ(core().statusReports.back(), (StatusReport{0, std::nullopt, false}));
    EXPECT_EQ(printed(), "Client 127.0.0.1:" + std::to_string(client.port()) + " disconnected\n");
}

TEST_F(ClientTable, DuplicateSlotsOfOneAddressAllObeyItsDataRequest) {
    const std::uint16_t port = connect(COMPANY | 1).port();
    vanish(*clients[0]);
    TestClient& again = connect(COMPANY | 1, port);
    ASSERT_EQ(clientConn[0].peer->address.port, clientConn[1].peer->address.port);
    tell(again, dataRequest(0x41));
    for (const int index : {0, 1}) {
        EXPECT_EQ(clientConn.at(static_cast<std::size_t>(index)).rateCode, 1U);
        EXPECT_EQ(clientConn.at(static_cast<std::size_t>(index)).dataRequested, 1);
    }
    EXPECT_EQ(core().statusReports.size(), 4U) << "two connects and a request for two slots";
}

TEST_F(ClientTable, ClientBackOnItsOldPortHearsOnWhenItsOldConnectionEnds) {
    connect(COMPANY | 1);
    const std::uint16_t port = stream(1).port();
    vanish(*clients[1]);
    clients[0]->leave();
    pumpUntil([] { return connectCount == 1; });
    TestClient& again = connect(COMPANY | 1, port);
    tell(again, dataRequest(1));
    ENetPeer* const old = clientConn[1].peer;
    ASSERT_EQ(clientConn[0].peer->address.port, port) << "it came back into a lower slot";
    ASSERT_EQ(old->address.port, port);
    enet_peer_timeout(old, 1, 1, 1);  // Else it takes half a minute.
    enet_peer_ping(old);
    pumpUntil([] { return connectCount == 1; });
    EXPECT_TRUE(isStreaming(clientConn[0]));
    EXPECT_EQ(clientConn[1].peer, nullptr);
}

TEST_F(ClientTable, DisconnectOfAPeerWithoutASlotClearsTheFirstOfItsAddress) {
    const std::uint16_t port = connect(ALONE | 0).port();
    ENetPeer* const forgotten = clientConn[0].peer;
    vanish(*clients[0]);
    connect(COMPANY | 1, port);
    ASSERT_EQ(clientConn[0].peer, nullptr);
    ASSERT_EQ(clientConn[1].peer->address.port, port);
    clientConn[4] = clientConn[1];
    enet_peer_timeout(forgotten, 1, 1, 1);
    enet_peer_ping(forgotten);
    pumpUntil([] { return connectCount == 1; });
    EXPECT_EQ(clientConn[1].peer, nullptr);
    EXPECT_NE(clientConn[4].peer, nullptr);
}

TEST_F(ClientTable, DisconnectOfAnUnknownAddressClearsNothing) {
    connect(ALONE | 0);
    connect(COMPANY | 1);
    clients[0]->leave();  // Forgotten already.
    pumpUntil([] { return connectCount == 1; });
    EXPECT_NE(clientConn[1].peer, nullptr);
}

TEST_F(ClientTable, ServiceErrorIsPrintedAndReturnedAndTheNextCallTriesAgain) {
    failCall(Call::EnetHostService, 1, -1);
    EXPECT_EQ(serviceHost(), -1);
    EXPECT_EQ(printed(), "Error returned from service call\n");
    EXPECT_EQ(serviceHost(), 0);
    connect(COMPANY | 1);
}

TEST_F(ClientTable, EventOfAnotherTypeReturnsZero) {
    failCall(Call::EnetHostService, 1, 1);  // "An event", of type none.
    EXPECT_EQ(serviceHost(), 0);
    EXPECT_EQ(printed(), "");
}

TEST_F(ClientTable, SmallerMtuOfAClientIsRaised) {
    connect(COMPANY | 1, 0, 1392);
    EXPECT_EQ(clientConn[0].peer->mtu, 1400U);
    connect(COMPANY | 1, 0, 576);
    EXPECT_EQ(clientConn[1].peer->mtu, 1400U);
}

TEST(ClientAddress, IsFormattedInNetworkOrder) {
    char text[256];
    EXPECT_EQ(ipToString(ENET_HOST_TO_NET_32(0x01020304U), text), text);
    EXPECT_STREQ(text, "1.2.3.4");
    EXPECT_STREQ(ipToString(0, text), "0.0.0.0");
    EXPECT_STREQ(ipToString(0xFFFFFFFFU, text), "255.255.255.255");
    EXPECT_STREQ(ipToString(0xAAAAAAAA00000000UL | ENET_HOST_TO_NET_32(0x7F000001U), text),
                 "127.0.0.1")
        << "only the low 32 bits count";
}

}  // namespace
