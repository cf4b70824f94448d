#include <random>

#include "stream/client_table.h"
#include "stream/send_path.h"
#include "tests/support/call_faults.h"
#include "tests/support/named_case.h"
#include "tests/unit/stream/live_server.h"

namespace {

class ControlMessage : public LiveServer {
  protected:
    void SetUp() override {
        LiveServer::SetUp();
        client = &connect(COMPANY | 1);
        core().statusReports.clear();
        printed();
    }
    static ClientSlot& slot() { return clientConn[0]; }
    TestClient* client = nullptr;
};

void expectUnchanged(const ClientSlot& now, const ClientSlot& before) {
    EXPECT_EQ(now.peer, before.peer);
    EXPECT_EQ(now.protocolVersion, before.protocolVersion);
    EXPECT_EQ(now.multiClient, before.multiClient);
    EXPECT_EQ(now.reliable, before.reliable);
    EXPECT_EQ(now.rateCode, before.rateCode);
    EXPECT_EQ(now.dataRequested, before.dataRequested);
    EXPECT_EQ(now.connectTime, before.connectTime);
}

TEST_F(ControlMessage, DataRequestWithFlags41IsReliableAtRateCode1) {
    tell(*client, dataRequest(0x41, "Phone"));
    EXPECT_EQ(slot().reliable, 1);
    EXPECT_EQ(slot().rateCode, 1U);
    EXPECT_EQ(slot().dataRequested, 1);
    EXPECT_EQ(core().statusReports, (std::vector<StatusReport>{{1, "Phone", false}}));
    EXPECT_EQ(printed(),
              "Got Data request\nSending audio data in reliable mode\n"
              "Sending compressed audio data to client 0 at rate code 1\n");
}

TEST_F(ControlMessage, DataRequestWithFlags0IsBestEffortUncompressed) {
    tell(*client, dataRequest(0, "Phone"));
    EXPECT_EQ(slot().reliable, 0);
    EXPECT_EQ(slot().rateCode, 0U);
    EXPECT_EQ(slot().dataRequested, 1);
    EXPECT_EQ(printed(),
              "Got Data request\nSending audio data in best-effort mode\n"
              "Sending uncompressed audio data to client 0\n");
}

TEST_F(ControlMessage, EveryRateCodeIsTakenAndOtherBitsAreIgnored) {
    for (std::uint32_t code = 0; code < 8; ++code) {
        for (const std::uint32_t reliable : {0U, 1U}) {
            tell(*client, dataRequest(0xFFFFFE3EU | (code << 6) | reliable));
            EXPECT_EQ(slot().rateCode, code);
            EXPECT_EQ(slot().reliable, reliable);
        }
    }
}

TEST_F(ControlMessage, LinesNameTheSlot) {
    TestClient& second = connect(COMPANY | 1);
    printed();
    tell(second, dataRequest(7U << 6));
    EXPECT_NE(printed().find("to client 1 at rate code 7\n"), std::string::npos);
    tell(second, dataRequest(0));
    EXPECT_NE(printed().find("Sending uncompressed audio data to client 1\n"), std::string::npos);
    EXPECT_EQ(slot().dataRequested, 0);
}

TEST_F(ControlMessage, OnChannelOneIsObeyedToo) {
    client->send(dataRequest(0x41), 1);
    pumpUntil([] { return slot().dataRequested == 1; });
}

TEST_F(ControlMessage, FasterAndSlowerChangeNothing) {
    const ClientSlot before = slot();
    tell(*client, controlMessage(2, 0x41));
    EXPECT_EQ(printed(), "Got Faster request\n");
    tell(*client, controlMessage(3, 0x41));
    EXPECT_EQ(printed(), "Got Slower request\n");
    expectUnchanged(slot(), before);
    EXPECT_TRUE(core().statusReports.empty());
}

TEST_F(ControlMessage, UnknownIdsAreNamedAndDropped) {
    const ClientSlot before = slot();
    const std::pair<std::uint32_t, const char*> ids[] = {
        {0, "0"}, {4, "4"}, {256, "256"}, {0x01000000U, "16777216"}, {0xFFFFFFFFU, "-1"}};
    for (const auto& [id, text] : ids) {
        tell(*client, controlMessage(id, 0x41));
        EXPECT_EQ(printed(), std::string("Got unrecognized message ID ") + text + "\n");
    }
    expectUnchanged(slot(), before);
}

TEST_F(ControlMessage, FromAnAddressWithoutASlotIsDestroyedWithoutEffect) {
    clientConn.fill(ClientSlot{});
    tell(*client, dataRequest(0x41));
    EXPECT_EQ(printed(), "");
    EXPECT_TRUE(core().statusReports.empty());
    EXPECT_EQ(clientConn[0].dataRequested, 0);
    EXPECT_EQ(countOf(Call::EnetPacketDestroy), 1);
}

/// A Data request cut to 0 to 17 bytes.
class CutMessage : public ControlMessage, public testing::WithParamInterface<std::size_t> {};

TEST_P(CutMessage, MissingBytesCountAsZero) {
    const std::size_t length = GetParam();
    std::vector<unsigned char> message = dataRequest(0x00000141, "N", false);
    ASSERT_EQ(message.size(), 17U);
    message.resize(length);
    message.shrink_to_fit();
    tell(*client, message);
    if (length == 0) {
        EXPECT_EQ(printed(), "Got unrecognized message ID 0\n");
        EXPECT_EQ(slot().dataRequested, 0);
        return;
    }
    const std::uint32_t code = (length >= 9 ? 1U : 0U) | (length >= 10 ? 4U : 0U);
    EXPECT_EQ(slot().dataRequested, 1);
    EXPECT_EQ(slot().reliable, length >= 9 ? 1 : 0);
    EXPECT_EQ(slot().rateCode, code);
    EXPECT_EQ(core().statusReports,
              (std::vector<StatusReport>{{1, length >= 17 ? "N" : "", false}}));
}

INSTANTIATE_TEST_SUITE_P(ControlMessage, CutMessage, testing::Range<std::size_t>(0, 18));

/// A name and what is reported.
struct NameCase : NamedCase {
    std::string sent;
    bool terminated;
    std::string reported;
};

class ClientName : public ControlMessage, public testing::WithParamInterface<NameCase> {};

TEST_P(ClientName, IsReported) {
    tell(*client, dataRequest(0, GetParam().sent, GetParam().terminated));
    EXPECT_EQ(core().statusReports, (std::vector<StatusReport>{{1, GetParam().reported, false}}));
}

INSTANTIATE_TEST_SUITE_P(
    ControlMessage, ClientName,
    testing::Values(
        NameCase{"Empty", "", true, ""}, NameCase{"EmptyWithoutTerminator", "", false, ""},
        NameCase{"Short", "Phone", true, "Phone"},
        NameCase{"WithoutTerminator", "Phone", false, "Phone"},
        NameCase{"WithTextBehindTheTerminator", std::string("a\0b", 3), true, "a"},
        NameCase{"Of254", std::string(254, 'n'), true, std::string(254, 'n')},
        NameCase{"Of255", std::string(255, 'n'), true, std::string(255, 'n')},
        NameCase{"Of255WithoutTerminator", std::string(255, 'n'), false, std::string(255, 'n')},
        NameCase{"Of256", std::string(256, 'n'), true, std::string(255, 'n')},
        NameCase{"Of5000", std::string(5000, 'n'), true, std::string(255, 'n')},
        NameCase{"Of5000WithoutTerminator", std::string(5000, 'n'), false, std::string(255, 'n')},
        NameCase{"Utf8", "Küche", true, "Küche"}),
    CASE_NAME);

}  // namespace
