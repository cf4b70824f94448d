#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <enet/enet.h>

/// One scripted client of the server: an ENet host with one peer, which prints what happens to it
/// and writes every packet it receives to a file.
///
/// The file is a row of records: time since start in ms, length (both 32-bit little-endian), then
/// the packet's bytes.
class ProbeClient {
  public:
    /// Begins to connect. `mtu` 0 and `localPort` 0 leave the choice to ENet and the system.
    /// Check `ok()` afterwards.
    ProbeClient(std::string name, const std::string& hostName, std::uint16_t port,
                std::uint32_t connectData, const std::string& recordPath, std::uint32_t mtu,
                std::uint16_t localPort);
    ~ProbeClient();
    ProbeClient(const ProbeClient&) = delete;
    ProbeClient& operator=(const ProbeClient&) = delete;

    [[nodiscard]] bool ok() const { return peer != nullptr && record != nullptr; }

    void send(std::uint8_t channel, bool reliable, const std::vector<unsigned char>& bytes);
    void disconnect(std::uint32_t data);

    /// A stalled client reads nothing from its socket and answers nothing.
    void stall(bool on) { stalled = on; }

    /// Asks the server's ENet to send every best-effort packet, however late answers come.
    void refuseThinning();

    /// Prints packet, byte and datagram counts.
    void printStatistics() const;

    /// Handles everything that has arrived.
    void service();

  private:
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::string name;
    ENetHost* host = nullptr;  // Owned.
    ENetPeer* peer = nullptr;
    std::unique_ptr<std::FILE, CloseFile> record;
    bool stalled = false;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;

    void keep(const ENetPacket& packet);
    void printConnected() const;
};
