#include "listen/playout/jitter_buffer.h"

#include "listen/network/audio_packet.h"

namespace vxlisten {

namespace {

/// Signed distance between two numbers that wrap.
std::int32_t distance(std::uint32_t from, std::uint32_t to) {
    return static_cast<std::int32_t>(to - from);
}

}  // namespace

bool JitterBuffer::startsStream(const StoredPacket& packet) const {
    return !started_ || packet.stream != stream_;
}

void JitterBuffer::restart(const StoredPacket& packet) {
    for (Slot& slot : slots_) {
        slot.used = false;
    }
    started_ = true;
    stream_ = packet.stream;
    next_ = packet.head.seq;
    end_ = packet.head.seq;
}

JitterBuffer::Inserted JitterBuffer::insert(const StoredPacket& packet) {
    const bool fresh = startsStream(packet);
    if (fresh) {
        restart(packet);
    }
    const std::uint32_t seq = packet.head.seq;
    if (distance(next_, seq) < 0) {
        return Inserted::Late;
    }
    while (distance(next_, seq) >= static_cast<std::int32_t>(CAPACITY)) {
        if (empty()) {
            next_ = end_ = seq;
        } else {
            advance();
        }
    }
    Slot& slot = slots_[seq % CAPACITY];
    if (slot.used) {
        return Inserted::Duplicate;
    }
    slot.used = true;
    slot.packet = packet;
    packetFrames_ = packet.head.frames;
    sampleRate_ = packet.head.sampleRate;
    if (distance(end_, seq) >= 0) {
        end_ = seq + 1;
    }
    return fresh ? Inserted::NewStream : Inserted::Kept;
}

const StoredPacket* JitterBuffer::front() const {
    const Slot& slot = slots_[next_ % CAPACITY];
    return !empty() && slot.used ? &slot.packet : nullptr;
}

void JitterBuffer::advance() {
    slots_[next_ % CAPACITY].used = false;
    ++next_;
}

std::size_t JitterBuffer::depthFrames() const {
    return static_cast<std::size_t>(end_ - next_) * packetFrames_;
}

}  // namespace vxlisten
