#include "listen/network/sequence_tracker.h"

namespace vxlisten {

namespace {

constexpr std::uint32_t HISTORY = 64;
/// Numbers of about a minute of raw audio: more cannot be missing within one connection, since
/// ENet gives a silent peer up before.
constexpr std::uint32_t LARGEST_GAP = 9000;
/// A number this far back is an echo of the past; one further back means a new count.
constexpr std::uint32_t LARGEST_RETURN = 1000;

}  // namespace

bool SequenceTracker::sameStream(const AudioPacket& packet) const {
    return started_ && compressedPass_ == packet.compressedPass() &&
           sampleRate_ == packet.sampleRate;
}

SequenceStep SequenceTracker::start(const AudioPacket& packet) {
    started_ = true;
    compressedPass_ = packet.compressedPass();
    sampleRate_ = packet.sampleRate;
    expected_ = packet.seq + 1;
    history_ = ~std::uint64_t{0};
    return {Arrival::Start, 0};
}

SequenceStep SequenceTracker::advance(std::uint32_t missing) {
    expected_ += missing + 1;
    history_ = missing + 1 < HISTORY ? history_ << (missing + 1) : 0;
    history_ |= 1;
    lost_ += missing;
    return {missing == 0 ? Arrival::Next : Arrival::AfterGap, missing};
}

SequenceStep SequenceTracker::goBack(std::uint32_t distance) {
    const std::uint64_t bit = distance <= HISTORY ? std::uint64_t{1} << (distance - 1) : 0;
    if ((history_ & bit) != 0) {
        ++duplicates_;
        return {Arrival::Duplicate, 0};
    }
    history_ |= bit;
    ++late_;
    if (bit != 0 && lost_ > 0) {
        --lost_;
    }
    return {Arrival::Late, 0};
}

SequenceStep SequenceTracker::observe(const AudioPacket& packet) {
    if (!sameStream(packet)) {
        return start(packet);
    }
    const std::uint32_t ahead = packet.seq - expected_;
    if (ahead <= LARGEST_GAP) {
        return advance(ahead);
    }
    const std::uint32_t behind = expected_ - packet.seq;
    return behind <= LARGEST_RETURN ? goBack(behind) : start(packet);
}

}  // namespace vxlisten
