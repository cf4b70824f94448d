// What comes through a network that reorders datagrams and brings some twice, at once or much
// later. ENet numbers the packets of a channel and drops what is not newer than the one before:
// everything behind the receiver relies on that in both modes of delivery.

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <enet/enet.h>
#include <gtest/gtest.h>

#include "listen/network/receiver.h"
#include "tests/support/enet_server.h"
#include "tests/support/named_case.h"
#include "tests/support/udp_socket.h"

using vxlisten::Receiver;
using vxlisten::ReceiverEvent;

namespace {

/// More than the 65536 numbers that ENet counts with.
constexpr std::uint32_t PACKETS = 70000;

struct Delivery : NamedCase {
    enet_uint32 flags;
    std::size_t bytes;  ///< Of each packet.
};

/// Stands between a client and a server. What the server sends passes in a random order.
class ReorderingRelay {
  public:
    explicit ReorderingRelay(std::uint16_t serverPort) : random_(seed_), serverPort_(serverPort) {
        std::cout << "random seed " << seed_ << "\n";
    }

    std::uint16_t port() const { return near_.port(); }

    /// Passes everything on; what is still held back for the sake of disorder once `flushing`.
    void pass(bool flushing) {
        while (const auto datagram = near_.receive(0)) {
            client_ = *datagram;
            far_.send(datagram->text, "127.0.0.1", serverPort_);
        }
        while (const auto datagram = far_.receive(0)) {
            hold(datagram->text);
        }
        while (held_.size() > (flushing ? 0 : HELD)) {
            release();
        }
    }

    std::uint64_t overtaken = 0;  ///< Datagrams that came behind a newer one.
    std::uint64_t doubled = 0;

  private:
    struct Held {
        std::uint64_t number;
        std::string bytes;
    };

    static constexpr std::size_t HELD = 4;
    static constexpr std::size_t MUCH_LATER = 2000;

    void hold(const std::string& bytes) {
        held_.push_back({++number_, bytes});
        past_.push_back({number_, bytes});
        if (random_() % 4 == 0) {
            held_.push_back(past_.back());
            ++doubled;
        }
        if (past_.size() > MUCH_LATER) {
            if (random_() % 50 == 0) {
                held_.push_back(past_.front());
                ++doubled;
            }
            past_.pop_front();
        }
    }

    void release() {
        const auto at = held_.begin() + static_cast<std::ptrdiff_t>(random_() % held_.size());
        overtaken += at->number < newest_ ? 1 : 0;
        newest_ = std::max(newest_, at->number);
        near_.answer(client_, at->bytes);
        held_.erase(at);
    }

    const std::random_device::result_type seed_ = std::random_device{}();
    std::mt19937 random_;
    const UdpSocket near_;
    const UdpSocket far_;
    std::uint16_t serverPort_;
    Datagram client_;  ///< The last one of the client's.
    std::vector<Held> held_;
    std::deque<Held> past_;
    std::uint64_t number_ = 0;
    std::uint64_t newest_ = 0;
};

/// A server that sends numbered packets as fast as its client takes them.
class NumberingServer {
  public:
    explicit NumberingServer(const Delivery& delivery) : delivery_(delivery) {
        server_.limitMtu(ENET_PROTOCOL_MINIMUM_MTU);
    }

    std::uint16_t port() const { return server_.port(); }

    /// Sends a few packets more, but none that is far ahead of number `taken`.
    void step(std::uint32_t taken) {
        server_.service();
        for (int i = 0; server_.connections() > 0 && i < 3 && !done() && sent_ < taken + 500; ++i) {
            std::vector<unsigned char> bytes(delivery_.bytes, static_cast<unsigned char>(sent_));
            std::memcpy(bytes.data(), &sent_, sizeof sent_);
            server_.send(bytes, delivery_.flags);
            ++sent_;
        }
    }

    bool done() const { return sent_ == PACKETS; }

  private:
    Delivery delivery_;
    EnetServer server_;
    std::uint32_t sent_ = 0;
};

class ReceivedOrder : public testing::TestWithParam<Delivery> {
  protected:
    /// Receives everything; the numbers in the order in which they came.
    std::vector<std::uint32_t> receive(NumberingServer& server, ReorderingRelay& relay) {
        Receiver receiver;
        EXPECT_TRUE(receiver.open() && receiver.resolve("127.0.0.1", relay.port()) &&
                    receiver.connect({}));
        std::vector<std::uint32_t> numbers;
        for (int idle = 0; idle < 2000;) {
            server.step(numbers.empty() ? 0 : numbers.back());
            ReceiverEvent event = receiver.service(idle < 20 ? 0 : 1);
            relay.pass(++idle > 20);
            for (; event.type != ReceiverEvent::Type::None; event = receiver.service(0)) {
                idle = 0;
                if (event.packet != nullptr) {
                    numbers.push_back(numberOf(*event.packet));
                }
            }
            if (!numbers.empty() && numbers.back() == PACKETS - 1) {
                break;
            }
        }
        return numbers;
    }

  private:
    static std::uint32_t numberOf(const ENetPacket& packet) {
        std::uint32_t number = 0;
        EXPECT_EQ(packet.dataLength, GetParam().bytes);
        std::memcpy(&number, packet.data, sizeof number);
        EXPECT_TRUE(std::all_of(packet.data + sizeof number, packet.data + packet.dataLength,
                                [&](unsigned char byte) { return byte == (number & 0xFF); }));
        return number;
    }
};

TEST_P(ReceivedOrder, NothingComesTwiceOrBehindANewerPacketOnANetworkThatReordersAndDoubles) {
    NumberingServer server(GetParam());
    ReorderingRelay relay(server.port());
    const std::vector<std::uint32_t> numbers = receive(server, relay);
    EXPECT_GT(relay.overtaken, PACKETS / 8);
    EXPECT_GT(relay.doubled, PACKETS / 8);
    EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end(), std::greater_equal<>()),
              numbers.end());
    if (GetParam().flags == ENET_PACKET_FLAG_RELIABLE) {
        EXPECT_EQ(numbers.size(), PACKETS);
    } else {
        EXPECT_GT(numbers.size(), PACKETS / 10) << "most are left out, being overtaken";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Receiver, ReceivedOrder,
    testing::Values(Delivery{"Reliable", ENET_PACKET_FLAG_RELIABLE, 24},
                    Delivery{"ReliableInFragments", ENET_PACKET_FLAG_RELIABLE, 900},
                    Delivery{"BestEffort", ENET_PACKET_FLAG_UNRELIABLE_FRAGMENT, 24},
                    Delivery{"BestEffortInFragments", ENET_PACKET_FLAG_UNRELIABLE_FRAGMENT, 900}),
    CASE_NAME);

}  // namespace
