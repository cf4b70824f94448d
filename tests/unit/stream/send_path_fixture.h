#pragma once

#include <cstdint>
#include <numeric>
#include <vector>

#include "stream/send_path.h"
#include "tests/unit/stream/live_server.h"

constexpr int RAW = 1368;
constexpr int COMPRESSED = 1936;
constexpr std::uint32_t RELIABLE = 1;
constexpr std::uint32_t BEST_EFFORT = 0;

constexpr std::uint32_t rate(std::uint32_t code) {
    return code << 6;
}

/// Passes blocks to the send path of a live server, and reads what its clients receive.
class SendPath : public LiveServer {
  protected:
    void SetUp() override {
        LiveServer::SetUp();
        buffer.resize(2000);
        std::iota(buffer.begin(), buffer.end(), static_cast<char>(1));
    }
    int process(int length, bool hasInput = true) {
        return processBuffer(buffer.data(), length, hasInput);
    }
    /// The packet that answers one block; the test fails when there is none.
    const ReceivedPacket& receive(TestClient& client) {
        const std::size_t before = received;
        pumpUntil([&client, before] { return client.packets.size() > before; });
        ++received;
        return client.packets.back();
    }
    std::vector<unsigned char> payloadOf(int length) {
        return {buffer.begin() + 16, buffer.begin() + length};
    }
    static std::vector<unsigned char> payloadOf(const ReceivedPacket& packet) {
        return {packet.bytes.begin() + 16, packet.bytes.end()};
    }
    std::vector<char> buffer;
    std::size_t received = 0;
};
