#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <enet/enet.h>

/// A server on the loopback interface that sends what the test gives it. Thread: any.
class EnetServer {
  public:
    /// `port` 0: one that is free. Ends the program when the port is taken. Services itself every
    /// `period` milliseconds on a thread of its own and then calls `step`; 0: its owner services
    /// it.
    explicit EnetServer(std::uint16_t port = 0, int period = 0,
                        std::function<void(EnetServer&)> step = {});
    ~EnetServer();
    EnetServer(const EnetServer&) = delete;
    EnetServer& operator=(const EnetServer&) = delete;

    [[nodiscard]] std::uint16_t port() const { return host_->address.port; }

    /// Handles what has come, for which it waits for at most `milliseconds`.
    void service(int milliseconds = 0);

    /// Sends a packet to all clients.
    void send(const std::vector<unsigned char>& packet,
              enet_uint32 delivery = ENET_PACKET_FLAG_RELIABLE);

    /// Rate codes that connected clients have asked for.
    std::vector<std::uint32_t> asked();

    /// The last Data request, byte by byte.
    std::string request();

    /// Connections so far.
    int connections();

    /// Drops all clients with this disconnect data.
    void dropAll(std::uint32_t data);

    /// Largest datagram that it sends to clients who connect from now on, in bytes.
    void limitMtu(enet_uint32 mtu) { host_->mtu = mtu; }

  private:
    void handle(const ENetEvent& event);

    std::mutex lock_;  ///< Guards everything below.
    ENetHost* host_;
    std::map<ENetPeer*, std::uint32_t> clients_;  ///< With their rate codes.
    std::string request_;
    int connections_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
