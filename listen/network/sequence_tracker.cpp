#include "listen/network/sequence_tracker.h"

namespace vxlisten {

namespace {

/// About a minute of raw audio: no more can be missing within one connection, since ENet
/// disconnects a silent peer earlier.
constexpr std::uint32_t MAXIMUM_GAP = 9000;

}  // namespace

SequenceStep SequenceTracker::observe(const AudioPacket& packet) {
    const std::uint32_t missing = packet.seq - expected_;
    const bool continues = started_ && compressedPass_ == packet.compressedPass() &&
                           sampleRate_ == packet.sampleRate && missing <= MAXIMUM_GAP;
    started_ = true;
    compressedPass_ = packet.compressedPass();
    sampleRate_ = packet.sampleRate;
    expected_ = packet.seq + 1;
    if (!continues) {
        return {true, 0};
    }
    lost_ += missing;
    return {false, missing};
}

}  // namespace vxlisten
