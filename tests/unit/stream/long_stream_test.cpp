// A reliable client of a long stream, longer than ENet's 16-bit command numbers reach. Blocks come
// much faster than in real time, which is why ENet does not wait for events here.

#include <cstring>
#include <optional>
#include <random>

#include "stream/client_table.h"
#include "stream/send_path.h"
#include "tests/support/call_faults.h"
#include "tests/unit/stream/live_server.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto TIMEOUT = std::chrono::seconds(20);
constexpr std::uint32_t COMMAND_NUMBERS = 65536;
constexpr std::uint32_t WINDOW_SIZE = ENET_PEER_RELIABLE_WINDOW_SIZE;
constexpr int WRAPS = 4;
constexpr int STALLS_PER_WRAP = 8;
constexpr std::uint32_t ALREADY_WRAPPED = 5000;

class LongStream : public LiveServer {
  protected:
    void SetUp() override {
        LiveServer::SetUp();
        serviceWithoutWaiting() = true;
        listener = &stream(wire::makeFlags(true, false, wire::RATE_CODE_RAW));
        ASSERT_TRUE(streamUntil([this] { return newest.has_value(); }));
    }

    void TearDown() override {
        serviceWithoutWaiting() = false;
        LiveServer::TearDown();
    }

    /// Sends the next block, whose first samples are its number.
    void deliver() {
        std::vector<char> block(wire::RAW_BUFFER_LENGTH);
        std::memcpy(&block[wire::HEADER_LENGTH], &seqNum, sizeof seqNum);
        processBuffer(block.data(), static_cast<int>(block.size()), true);
        resetCalls();  // Of which there are too many to remember.
    }

    /// Takes what has arrived: blocks in order and as they were sent.
    void listen() {
        listener->service();
        ASSERT_TRUE(listener->connected) << "broken after packet " << newest.value_or(0);
        for (const ReceivedPacket& packet : listener->packets) {
            ASSERT_EQ(packet.bytes.size(), wire::RAW_BUFFER_LENGTH);
            const std::uint32_t seq = packet.header.seq;
            ASSERT_TRUE(!newest || seq > *newest) << seq << " after " << *newest;
            ASSERT_EQ(wire::readU32(packet.bytes.data(), packet.bytes.size(), wire::HEADER_LENGTH),
                      seq);
            newest = seq;
            ++received;
        }
        listener->packets.clear();
    }

    /// Streams with an attentive client until `done()`; false when that takes too long.
    template <class Done>
    bool streamUntil(Done done) {
        const auto end = Clock::now() + TIMEOUT;
        while (!done()) {
            deliver();
            listen();
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

    /// True from `lead` commands before the numbers wrap until some time after.
    static bool isAroundTheWrap(std::uint32_t lead) {
        return lastCommand() >= COMMAND_NUMBERS - lead || lastCommand() < ALREADY_WRAPPED;
    }

    /// Streams while the client reads nothing, until `trims` trims have rolled the counter back.
    void stall(int trims) {
        const auto end = Clock::now() + TIMEOUT;
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
        return streamUntil([this] { return newest == seqNum - 1; });
    }

    TestClient* listener = nullptr;
    std::optional<std::uint32_t> newest;  ///< Sequence number of the last packet.
    std::uint64_t received = 0;
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
        const std::uint64_t receivedBefore = received;
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
        EXPECT_GT(received - receivedBefore, COMMAND_NUMBERS - 10000);
    }
    EXPECT_GE(trimsAcrossTheWrap, WRAPS);
    EXPECT_GT(received, (WRAPS - 1) * COMMAND_NUMBERS);
}

}  // namespace
