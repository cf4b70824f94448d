#include "listen/playout/block_queue.h"

#include <algorithm>
#include <cassert>

namespace vxlisten {

namespace {

constexpr double BLOCKS_PER_SECOND = 150;
constexpr double SPARE_BLOCKS = 512;

}  // namespace

BlockQueue::BlockQueue(double seconds)
    : slots_(static_cast<std::size_t>(SPARE_BLOCKS + 2 * BLOCKS_PER_SECOND * seconds)) {}

void BlockQueue::push(const DecodedBlock& block, std::int64_t now, const SendTime& sent) {
    assert(pushing_.here());
    if (block.count == 0) {
        return;
    }
    newStream_ = newStream_ || block.join == Join::NewStream;
    const std::size_t pushed = pushed_.load(std::memory_order_relaxed);
    if (pushed - popped_.load(std::memory_order_acquire) == slots_.size()) {
        newStream_ = true;
        return;
    }
    position_ = newStream_ ? 0 : position_;
    QueuedBlock& slot = slots_[pushed % slots_.size()];
    slot.join = newStream_ ? Join::NewStream : block.join;
    slot.concealed = block.concealed;
    slot.position = position_;
    slot.sent = sent;
    slot.arrival = now;
    slot.sampleRate = block.sampleRate;
    slot.count = block.count;
    std::copy_n(block.frames, 2 * block.count, slot.frames.begin());
    position_ += block.count;
    newStream_ = false;
    pushed_.store(pushed + 1, std::memory_order_release);
}

std::size_t BlockQueue::size() const {
    assert(popping_.here());
    return pushed_.load(std::memory_order_acquire) - popped_.load(std::memory_order_relaxed);
}

const QueuedBlock& BlockQueue::operator[](std::size_t at) const {
    assert(at < size());
    return slots_[(popped_.load(std::memory_order_relaxed) + at) % slots_.size()];
}

void BlockQueue::pop() {
    assert(size() > 0);
    popped_.store(popped_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace vxlisten
