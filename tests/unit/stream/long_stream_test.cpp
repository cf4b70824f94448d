// A reliable client of a long stream, longer than ENet's 16-bit command numbers reach. The server
// is the real one from the capture callback down; the capture is driven by the test, much faster
// than real time, which is why ENet's wait for events is taken out (see the linker's --wrap).

#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

#include <enet/enet.h>
#include <gtest/gtest.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "stream/client_table.h"
#include "stream/network_host.h"
#include "stream/service_step.h"
#include "stream/wire_format.h"
#include "tests/support/driven_capture.h"
#include "tests/support/net_namespace.h"

extern "C" {
int __real_enet_host_service(ENetHost* host, ENetEvent* event, enet_uint32 timeout);
int __wrap_enet_host_service(ENetHost* host, ENetEvent* event, enet_uint32 timeout);

int __wrap_enet_host_service(ENetHost* host, ENetEvent* event, enet_uint32 /*timeout*/) {
    return __real_enet_host_service(host, event, 0);
}
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto PATIENCE = std::chrono::seconds(20);
constexpr std::uint32_t COMMAND_NUMBERS = 65536;
constexpr std::uint32_t WINDOW_SIZE = ENET_PEER_RELIABLE_WINDOW_SIZE;
constexpr int WRAPS = 4;
constexpr int STALLS_PER_WRAP = 8;
constexpr std::uint32_t ALREADY_WRAPPED = 5000;

/// A client that checks every audio packet it receives.
class Listener {
  public:
    Listener() : host(enet_host_create(nullptr, 1, 2, 0, 0)) {
        ENetAddress address = {};
        enet_address_set_host_ip(&address, "127.0.0.1");
        address.port = wire::DEFAULT_SERVER_PORT;
        peer = enet_host_connect(host, &address, 2, wire::CONNECT_MULTI_CLIENT | 1);
    }
    ~Listener() { enet_host_destroy(host); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Handles everything that has arrived.
    void service() {
        ENetEvent event = {};
        while (enet_host_service(host, &event, 0) > 0) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                requestReliableRaw();
            } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
                take(*event.packet);
                enet_packet_destroy(event.packet);
            } else {
                ADD_FAILURE() << "the connection broke after packet " << newest.value_or(0);
            }
        }
    }

    std::optional<std::uint32_t> newest;  ///< Sequence number of the last packet.
    std::uint64_t received = 0;

  private:
    void requestReliableRaw() {
        unsigned char request[wire::HEADER_LENGTH];
        wire::PacketHeader header;
        header.msgId = wire::MSGID_DATA;
        header.flags = wire::makeFlags(true, false, wire::RATE_CODE_RAW);
        wire::writeHeader(request, header);
        enet_peer_send(peer, 0,
                       enet_packet_create(request, sizeof request, ENET_PACKET_FLAG_RELIABLE));
    }

    void take(const ENetPacket& packet) {
        ASSERT_EQ(packet.dataLength, wire::RAW_BUFFER_LENGTH);
        const std::uint32_t seq = wire::readHeader(packet.data, packet.dataLength).seq;
        ASSERT_TRUE(!newest || seq > *newest) << seq << " after " << *newest;
        ASSERT_EQ(wire::readU32(packet.data, packet.dataLength, wire::HEADER_LENGTH), seq);
        newest = seq;
        ++received;
    }

    ENetHost* host;
    ENetPeer* peer;
};

class LongStream : public testing::Test {
  protected:
    LongStream() {
        std::thread([this] { enetHost(&core); }).detach();
    }

    void SetUp() override {
        ASSERT_TRUE(DrivenCapture::waitForStart());
        listener = std::make_unique<Listener>();
        ASSERT_TRUE(streamUntil([this] { return listener->newest.has_value(); }));
    }

    /// Delivers the next block, whose first samples are its number, to the server.
    void deliver() {
        std::vector<std::int16_t> samples(2 * wire::RAW_BLOCK_FRAMES);
        std::memcpy(samples.data(), &blocks, sizeof blocks);
        ++blocks;
        DrivenCapture::deliver(samples);
    }

    /// Streams with an attentive client until `done()`; false when that takes too long.
    template <class Done>
    bool streamUntil(Done done) {
        const auto end = Clock::now() + PATIENCE;
        while (!done()) {
            deliver();
            listener->service();
            if (HasFailure() || Clock::now() > end) {
                return false;
            }
        }
        return true;
    }

    /// Number of the reliable command that was queued last.
    static std::uint32_t lastCommand() {
        return clientConn[0].peer->channels[0].outgoingReliableSequenceNumber;
    }

    /// True from `lead` commands before the numbers begin anew until some time after.
    static bool isAroundTheWrap(std::uint32_t lead) {
        return lastCommand() >= COMMAND_NUMBERS - lead || lastCommand() < ALREADY_WRAPPED;
    }

    /// Streams while the client reads nothing, until `trims` trims have rolled the counter back.
    void stall(int trims) {
        const auto end = Clock::now() + PATIENCE;
        while (trims > 0) {
            const std::uint32_t before = lastCommand();
            deliver();
            const std::uint32_t after = lastCommand();
            if (after != (before + 1) % COMMAND_NUMBERS) {
                --trims;
                trimsAcrossTheWrap += after > before ? 1 : 0;
            }
            ASSERT_LT(Clock::now(), end) << "the queue is not trimmed";
        }
    }

    bool hearsTheNewest() {
        return streamUntil([this] { return listener->newest == blocks - 1; });
    }

    const LoopbackNetwork network;
    VelantrixServerNoGUI core;
    std::unique_ptr<Listener> listener;
    std::uint32_t blocks = 0;
    int trimsAcrossTheWrap = 0;  ///< Trims whose queue held numbers of both sides of the wrap.
};

TEST_F(LongStream, ClientThatStallsAroundTheCommandWrapHearsTheRestOfTheStream) {
    const auto seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    // How long before the wrap a stall begins: some 48 commands still go out, the rest waits.
    std::uniform_int_distribution<std::uint32_t> leadOfASpanningQueue(60, 110);
    std::uniform_int_distribution<std::uint32_t> anyLead(0, 300);
    std::uniform_int_distribution<int> anyTrims(1, 4);

    for (int wrap = 0; wrap < WRAPS; ++wrap) {
        const std::uint64_t receivedBefore = listener->received;
        for (std::uint32_t window = 1; window < COMMAND_NUMBERS / WINDOW_SIZE; ++window) {
            const std::uint32_t start = window * WINDOW_SIZE - leadOfASpanningQueue(random);
            ASSERT_TRUE(streamUntil([start] { return lastCommand() >= start; }));
            stall(1);
            ASSERT_TRUE(hearsTheNewest()) << "deaf after a stall before window " << window;
        }
        std::uint32_t lead = leadOfASpanningQueue(random);
        for (int stalls = 0; stalls < STALLS_PER_WRAP; ++stalls) {
            ASSERT_TRUE(streamUntil([lead] { return isAroundTheWrap(lead); }));
            stall(anyTrims(random));
            ASSERT_TRUE(hearsTheNewest()) << "deaf after stall " << stalls << " of wrap " << wrap;
            lead = anyLead(random);
        }
        ASSERT_TRUE(streamUntil([] { return lastCommand() < COMMAND_NUMBERS / 2; }));
        EXPECT_GT(listener->received - receivedBefore, COMMAND_NUMBERS - 10000);
    }
    EXPECT_GE(trimsAcrossTheWrap, WRAPS);
    EXPECT_GT(listener->received, (WRAPS - 1) * COMMAND_NUMBERS);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    std::fflush(nullptr);
    _exit(result);  // The network thread sleeps on.
}
