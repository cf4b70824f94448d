#include "listen/playout/block_queue.h"

#include <algorithm>
#include <cassert>

namespace vxlisten {

void BlockQueue::push(const DecodedBlock& block, std::int64_t now) {
    assert(pushing_.here());
    if (block.count == 0) {
        return;
    }
    newStream_ = newStream_ || block.join == Join::NewStream;
    const std::size_t pushed = pushed_.load(std::memory_order_relaxed);
    if (pushed - popped_.load(std::memory_order_acquire) == CAPACITY) {
        newStream_ = true;
        return;
    }
    turn_ = newStream_ ? 0 : turn_ + 1;
    QueuedBlock& slot = slots_[pushed % CAPACITY];
    slot.join = newStream_ ? Join::NewStream : block.join;
    slot.concealed = block.concealed;
    slot.turn = turn_;
    slot.arrival = now;
    slot.sampleRate = block.sampleRate;
    slot.count = block.count;
    std::copy_n(block.frames, 2 * block.count, slot.frames.begin());
    newStream_ = false;
    pushed_.store(pushed + 1, std::memory_order_release);
}

std::size_t BlockQueue::size() const {
    assert(popping_.here());
    return pushed_.load(std::memory_order_acquire) - popped_.load(std::memory_order_relaxed);
}

const QueuedBlock& BlockQueue::operator[](std::size_t at) const {
    assert(at < size());
    return slots_[(popped_.load(std::memory_order_relaxed) + at) % CAPACITY];
}

void BlockQueue::pop() {
    assert(size() > 0);
    popped_.store(popped_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace vxlisten
