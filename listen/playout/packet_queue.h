#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "listen/network/audio_packet.h"

namespace vxlisten {

/// A packet with its own copy of the payload.
struct StoredPacket {
    std::uint32_t stream = 0;  ///< Number of the stream it belongs to; another one is a new start.
    std::int64_t arrival = 0;  ///< Microseconds.
    AudioPacket head;          ///< Its payload pointer is not valid, see view().
    std::array<unsigned char, MAX_PAYLOAD> bytes{};

    /// Copies a packet. Realtime-safe: yes.
    void assign(const AudioPacket& packet, std::uint32_t streamNumber, std::int64_t now);

    /// The packet with its payload in this copy.
    [[nodiscard]] AudioPacket view() const;
};

/// Hands packets from the network's thread to the thread of the audio output without a lock.
/// One thread pushes, one other thread pops.
class PacketQueue {
  public:
    static constexpr std::size_t CAPACITY = 512;

    PacketQueue() : slots_(CAPACITY) {}

    /// Thread: the one that pushes. False when the queue is full; the packet is then dropped.
    bool push(const AudioPacket& packet, std::uint32_t stream, std::int64_t now);

    /// The oldest packet, null when there is none; valid until pop().
    /// Thread: the one that pops. Realtime-safe: yes.
    [[nodiscard]] const StoredPacket* front() const;

    /// Removes what front() returned. Thread: the one that pops. Realtime-safe: yes.
    void pop();

  private:
    std::vector<StoredPacket> slots_;
    std::atomic<std::size_t> pushed_{0};
    std::atomic<std::size_t> popped_{0};
};

}  // namespace vxlisten
