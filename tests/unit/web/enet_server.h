#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <enet/enet.h>

#include "tests/unit/listen/packets.h"

/// A server on the loopback interface that sends what the test gives it.
class EnetServer {
  public:
    explicit EnetServer(std::uint16_t port = 0);
    ~EnetServer();
    EnetServer(const EnetServer&) = delete;
    EnetServer& operator=(const EnetServer&) = delete;

    [[nodiscard]] std::uint16_t port() const { return host_->address.port; }

    /// Sends a packet to all who asked for its rate code.
    void send(const packets::Bytes& packet);

    /// Rate codes that connected clients have asked for.
    std::vector<std::uint32_t> asked();

    /// Connections so far.
    int connections();

    /// Drops all clients with this disconnect data.
    void dropAll(std::uint32_t data);

  private:
    void run();
    void handle(const ENetEvent& event);

    std::mutex lock_;  ///< Guards everything below.
    ENetHost* host_;
    std::map<ENetPeer*, std::uint32_t> clients_;  ///< With their rate codes.
    int connections_ = 0;
    bool stop_ = false;
    std::thread thread_;
};
