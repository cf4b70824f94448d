#pragma once

#include <cstdint>

#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "listen/playout/block_queue.h"
#include "listen/playout/send_clock.h"

/// Decodes the packets of a connection into a queue, as the client does.
class PacketFeed {
  public:
    /// `queue` is borrowed.
    explicit PacketFeed(vxlisten::BlockQueue& queue) : queue_(queue) {}

    /// Hands over a packet that came at `now` (microseconds).
    void push(const vxlisten::AudioPacket& packet, std::int64_t now) {
        decoder_.decode(packet, tracker_.observe(packet), [this, &packet, now](const auto& block) {
            queue_.push(block, now, clock_.next(block, packet, now));
        });
    }

    /// Starts another stream, as after a new connection.
    void restart() { tracker_.restart(); }

  private:
    vxlisten::BlockQueue& queue_;
    vxlisten::SequenceTracker tracker_;
    vxlisten::StreamDecoder decoder_;
    vxlisten::SendClock clock_;
};
