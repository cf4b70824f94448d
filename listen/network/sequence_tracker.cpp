#include "listen/network/sequence_tracker.h"

namespace vxlisten {

namespace {

/// Numbers of about a minute of raw audio: more cannot be missing within one connection, since
/// ENet gives a silent peer up before.
constexpr std::uint32_t LARGEST_GAP = 9000;

}  // namespace

SequenceStep SequenceTracker::observe(const AudioPacket& packet) {
    const std::uint32_t missing = packet.seq - expected_;
    const bool goesOn = started_ && compressedPass_ == packet.compressedPass() &&
                        sampleRate_ == packet.sampleRate && missing <= LARGEST_GAP;
    started_ = true;
    compressedPass_ = packet.compressedPass();
    sampleRate_ = packet.sampleRate;
    expected_ = packet.seq + 1;
    if (!goesOn) {
        return {true, 0};
    }
    lost_ += missing;
    return {false, missing};
}

}  // namespace vxlisten
