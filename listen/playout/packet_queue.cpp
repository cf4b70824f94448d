#include "listen/playout/packet_queue.h"

#include <algorithm>

namespace vxlisten {

void StoredPacket::assign(const AudioPacket& packet, std::uint32_t streamNumber, std::int64_t now) {
    stream = streamNumber;
    arrival = now;
    head = packet;
    std::copy_n(packet.payload, packet.payloadLength, bytes.begin());
}

AudioPacket StoredPacket::view() const {
    AudioPacket packet = head;
    packet.payload = bytes.data();
    return packet;
}

bool PacketQueue::push(const AudioPacket& packet, std::uint32_t stream, std::int64_t now) {
    const std::size_t pushed = pushed_.load(std::memory_order_relaxed);
    if (pushed - popped_.load(std::memory_order_acquire) == CAPACITY) {
        return false;
    }
    slots_[pushed % CAPACITY].assign(packet, stream, now);
    pushed_.store(pushed + 1, std::memory_order_release);
    return true;
}

const StoredPacket* PacketQueue::front() const {
    const std::size_t popped = popped_.load(std::memory_order_relaxed);
    return popped != pushed_.load(std::memory_order_acquire) ? &slots_[popped % CAPACITY] : nullptr;
}

void PacketQueue::pop() {
    popped_.store(popped_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace vxlisten
