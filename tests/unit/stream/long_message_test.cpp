// Messages of more bytes than the server keeps.

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "stream/client_table.h"
#include "stream/datagram_guard.h"
#include "stream/event_backlog.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/unit/stream/live_server.h"

namespace {

constexpr std::size_t MEGABYTE = std::size_t{1024} * 1024;
constexpr enet_uint32 KEPT = MAX_MESSAGE_BYTES;

class LongMessage : public LiveServer {
  protected:
    /// Sends a Data request of this length and waits until it is handled; returns the most bytes
    /// that were held of it meanwhile.
    std::size_t requestOf(TestClient& client, std::size_t length, enet_uint32 delivery) {
        std::vector<unsigned char> message = dataRequest(0x41, "Phone");
        message.resize(length, 'x');
        EXPECT_EQ(enet_peer_send(client.peer, 0,
                                 enet_packet_create(message.data(), message.size(), delivery)),
                  0);
        enet_host_flush(client.host);
        const ENetPeer& peer = *clientConn.at(static_cast<std::size_t>(slotOf(client))).peer;
        const int before = countOf(Call::EnetPacketDestroy);
        std::size_t most = 0;
        pumpUntil([&] {
            most = std::max(most, peer.totalWaitingData);
            return countOf(Call::EnetPacketDestroy) > before;
        });
        return most;
    }
};

TEST_F(LongMessage, OfAMegabyteIsObeyedAndHeldInPartOnly) {
    TestClient& client = connect(COMPANY | 1);
    EXPECT_LE(requestOf(client, MEGABYTE, ENET_PACKET_FLAG_RELIABLE), MAX_MESSAGE_BYTES);
    EXPECT_EQ(clientConn[0].rateCode, 1U);
    EXPECT_EQ(core().statusReports.back(), (StatusReport{1, "Phone", false}));
    tell(client, dataRequest(0xC1));
    EXPECT_EQ(clientConn[0].rateCode, 3U) << "the connection goes on";
}

TEST_F(LongMessage, SentBestEffortIsObeyedToo) {
    TestClient& client = connect(COMPANY | 1);
    requestOf(client, 5 * MAX_MESSAGE_BYTES, ENET_PACKET_FLAG_UNRELIABLE_FRAGMENT);
    EXPECT_EQ(clientConn[0].rateCode, 1U);
}

TEST_F(LongMessage, JustOverTheBoundIsObeyed) {
    TestClient& client = connect(COMPANY | 1);
    requestOf(client, MAX_MESSAGE_BYTES, ENET_PACKET_FLAG_RELIABLE);
    requestOf(client, MAX_MESSAGE_BYTES + 1, ENET_PACKET_FLAG_RELIABLE);
}

/// Passes the guard datagrams of unknown senders.
void guard(std::vector<unsigned char>& datagram) {
    static ENetHost host = {};
    guardDatagrams(host);
    host.receivedAddress.port = 1;
    host.receivedData = datagram.data();
    host.receivedDataLength = datagram.size();
    host.intercept(&host, nullptr);
}

/// A datagram of hand-made commands.
class Datagram {
  public:
    explicit Datagram(bool withTime) {
        const enet_uint16 peerId =
            withTime ? ENET_HOST_TO_NET_16(ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) : 0;
        bytes.resize(withTime ? sizeof(ENetProtocolHeader) : sizeof peerId);
        std::memcpy(bytes.data(), &peerId, sizeof peerId);
    }

    void addFragment(unsigned type, enet_uint32 total, enet_uint32 offset, enet_uint16 length) {
        ENetProtocolSendFragment fragment = {};
        fragment.header.command = static_cast<enet_uint8>(type);
        fragment.dataLength = ENET_HOST_TO_NET_16(length);
        fragment.totalLength = ENET_HOST_TO_NET_32(total);
        fragment.fragmentOffset = ENET_HOST_TO_NET_32(offset);
        add(&fragment, sizeof fragment, length);
    }

    /// A command of `size` bytes with its data's length at byte `field`; 0: it has no data.
    void addCommand(unsigned type, std::size_t size, std::size_t field) {
        unsigned char command[sizeof(ENetProtocol)] = {static_cast<unsigned char>(type)};
        constexpr unsigned char LENGTH = 5;
        if (field != 0) {
            command[field + 1] = LENGTH;
        }
        add(command, size, field != 0 ? LENGTH : 0);
    }

    void add(const void* command, std::size_t size, std::size_t dataLength) {
        last = bytes.size();
        const auto* const begin = static_cast<const unsigned char*>(command);
        bytes.insert(bytes.end(), begin, begin + size);
        bytes.resize(bytes.size() + dataLength, 'x');
    }

    void cut() { guard(bytes); }

    /// The last command, which is a fragment.
    [[nodiscard]] ENetProtocolSendFragment fragment() const {
        ENetProtocolSendFragment result;
        std::memcpy(&result, bytes.data() + last, sizeof result);
        return result;
    }
    [[nodiscard]] enet_uint32 total() const { return ENET_NET_TO_HOST_32(fragment().totalLength); }
    [[nodiscard]] enet_uint32 offset() const {
        return ENET_NET_TO_HOST_32(fragment().fragmentOffset);
    }

    std::vector<unsigned char> bytes;

  private:
    std::size_t last = 0;
};

/// A fragment of a message, and the rest of it.
struct Piece {
    enet_uint32 total;
    enet_uint32 offset;
    enet_uint16 length;
    enet_uint32 newTotal;
    enet_uint32 newOffset;
};

void PrintTo(const Piece& piece, std::ostream* out) {
    *out << piece.length << " at " << piece.offset << " of " << piece.total;
}

class LongMessagePiece : public testing::TestWithParam<Piece> {};

TEST_P(LongMessagePiece, LiesInWhatIsKept) {
    const Piece& piece = GetParam();
    for (const unsigned type : {8U, 8U | 0x80U, 12U}) {
        for (const bool withTime : {false, true}) {
            Datagram datagram(withTime);
            datagram.addFragment(type, piece.total, piece.offset, piece.length);
            datagram.cut();
            EXPECT_EQ(datagram.total(), piece.newTotal);
            EXPECT_EQ(datagram.offset(), piece.newOffset);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(LongMessage, LongMessagePiece,
                         testing::Values(
                             // Short enough.
                             Piece{KEPT, 0, 1000, KEPT, 0},
                             Piece{KEPT, KEPT - 1000, 1000, KEPT, KEPT - 1000},
                             // Too long.
                             Piece{KEPT + 1, 0, 1000, KEPT, 0},
                             Piece{KEPT + 1, KEPT - 1000, 1000, KEPT, KEPT - 1000},
                             Piece{KEPT + 1, KEPT - 999, 1000, KEPT, KEPT - 1000},
                             Piece{KEPT + 1, KEPT, 1, KEPT, KEPT - 1},
                             Piece{0xFFFFFFFFU, 0xFFFFFFF0U, 15, KEPT, KEPT - 15},
                             // Fragments beyond their own message, which ENet refuses.
                             Piece{KEPT + 1, KEPT + 1, 1000, KEPT + 1, KEPT + 1},
                             Piece{KEPT + 1, 2, 0xFFFF, KEPT + 1, 2},
                             Piece{KEPT + 1, 0xFFFFFFFFU, 1000, KEPT + 1, 0xFFFFFFFFU},
                             Piece{0xFFFFFFFFU, 0, 0xFFFF, 0xFFFFFFFFU, 0}));

TEST(LongMessageDatagram, PieceBehindCommandsOfEveryKindIsFound) {
    Datagram datagram(true);
    datagram.addCommand(1, sizeof(ENetProtocolAcknowledge), 0);
    datagram.addCommand(4, sizeof(ENetProtocolDisconnect), 0);
    datagram.addCommand(5, sizeof(ENetProtocolPing), 0);
    datagram.addCommand(6, sizeof(ENetProtocolSendReliable), 4);
    datagram.addCommand(7, sizeof(ENetProtocolSendUnreliable), 6);
    datagram.addCommand(9, sizeof(ENetProtocolSendUnsequenced), 6);
    datagram.addCommand(10, sizeof(ENetProtocolBandwidthLimit), 0);
    datagram.addCommand(11, sizeof(ENetProtocolThrottleConfigure), 0);
    datagram.addFragment(8, KEPT, 0, 100);
    datagram.addFragment(12, MEGABYTE, 0, 100);
    datagram.cut();
    EXPECT_EQ(datagram.total(), KEPT);
}

TEST(LongMessageDatagram, NothingBehindAnUnknownCommandIsTouched) {
    for (const unsigned type : {0U, 13U, 14U, 15U}) {
        Datagram datagram(false);
        datagram.addCommand(type, 4, 0);
        datagram.addFragment(8, MEGABYTE, 0, 100);
        datagram.cut();
        EXPECT_EQ(datagram.total(), MEGABYTE);
    }
}

TEST(LongMessageDatagram, CutAnywhereIsReadWithinItsEnd) {
    Datagram datagram(true);
    datagram.addFragment(8, MEGABYTE, 0, 100);
    datagram.addFragment(8, MEGABYTE, 100, 100);
    for (std::size_t length = 0; length < datagram.bytes.size(); ++length) {
        // A block of just this size, for the address sanitizer.
        std::vector<unsigned char> part(
            datagram.bytes.begin(), datagram.bytes.begin() + static_cast<std::ptrdiff_t>(length));
        part.shrink_to_fit();
        guard(part);
        if (length < sizeof(ENetProtocolHeader) + sizeof(ENetProtocolSendFragment)) {
            EXPECT_TRUE(std::equal(part.begin(), part.end(), datagram.bytes.begin()));
        }
    }
}

}  // namespace
