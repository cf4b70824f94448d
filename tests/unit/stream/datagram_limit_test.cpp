#include "stream/datagram_limit.h"

#include <memory>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"

namespace {

constexpr enet_uint16 PORT = 59010;
constexpr int TIMEOUT_MS = 5000;

struct DestroyHost {
    void operator()(ENetHost* host) const { enet_host_destroy(host); }
};

class DatagramLimit : public testing::Test {
  protected:
    DatagramLimit() {
        ENetAddress any = {ENET_HOST_ANY, PORT};
        host.reset(enet_host_create(&any, 4, 2, 0, 0));
        enet_address_set_host_ip(&address, "127.0.0.1");
        address.port = PORT;
        sender = enet_socket_create(ENET_SOCKET_TYPE_DATAGRAM);
    }
    ~DatagramLimit() override { enet_socket_destroy(sender); }

    void send(std::size_t length) {
        std::string bytes(length, 'x');
        ENetBuffer buffer = {};
        buffer.data = bytes.data();
        buffer.dataLength = length;
        ASSERT_EQ(enet_socket_send(sender, &address, &buffer, 1), static_cast<int>(length));
    }

    /// Length of the next datagram that reached the host's socket.
    ssize_t nextLength() {
        enet_uint32 condition = ENET_SOCKET_WAIT_RECEIVE;
        enet_socket_wait(host->socket, &condition, TIMEOUT_MS);
        char room[65536];
        return ::recv(host->socket, room, sizeof room, MSG_DONTWAIT);
    }

    const LoopbackNetwork network;
    std::unique_ptr<ENetHost, DestroyHost> host;
    ENetAddress address = {};
    ENetSocket sender;
};

TEST_F(DatagramLimit, DatagramsOfUsefulLengthArrive) {
    ASSERT_TRUE(limitDatagrams(*host));
    for (const std::size_t length : {2, 3, 1368, 1400, 4095, 4096}) {
        send(length);
        EXPECT_EQ(nextLength(), static_cast<ssize_t>(length));
    }
}

TEST_F(DatagramLimit, OtherDatagramsNeverReachEnet) {
    ASSERT_TRUE(limitDatagrams(*host));
    for (const std::size_t length : {0, 1, 4097, 5000, 65507}) {
        send(length);
    }
    send(7);
    EXPECT_EQ(nextLength(), 7);
}

TEST_F(DatagramLimit, ServiceCallsGoOnInAFloodOfLongDatagrams) {
    ASSERT_TRUE(limitDatagrams(*host));
    for (int i = 0; i < 20; ++i) {
        send(60000);
        ENetEvent event = {};
        EXPECT_EQ(enet_host_service(host.get(), &event, 0), 0);
    }
}

}  // namespace
