#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <ogg/ogg.h>

#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "web/streams/media_stream.h"
#include "web/streams/opus_transcoder.h"
#include "web/streams/stream_clock.h"

namespace vxweb {

/// The server's Opus packets, unchanged, in pages of 100 ms. Other packets are encoded here:
/// uncompressed blocks, and sound captured at 44.1 kHz, which the server encodes as if it were 48.
/// A few lost packets are replaced by empty ones, which players conceal, more by silence.
class OggStream final : public MediaStream {
  public:
    /// `rate` in kbit/s.
    OggStream(int rate, const std::string& title);
    ~OggStream() override;

    [[nodiscard]] std::string header() const override { return header_; }
    void take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
              std::int64_t nowUs, const Emit& emit) override;
    [[nodiscard]] std::size_t packetsToChunk() const override;
    void pass(std::int64_t nowUs, const Emit& emit) override;

  private:
    void put(const unsigned char* packet, std::size_t length);
    void putMissing(std::size_t count);
    void putSilence(std::size_t count);
    void putSound(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step);
    std::string takePages(bool all);
    void deliver(const Emit& emit);

    ogg_stream_state ogg_ = {};
    std::string header_;
    StreamClock clock_;
    OpusTranscoder transcoder_;
    std::int64_t packets_ = 0;       ///< Packets so far.
    std::size_t pagePackets_ = 0;    ///< In the page that is being filled.
    unsigned char emptyPacket_ = 0;  ///< The byte of an empty packet after the last one.
    std::size_t emptyRun_ = 0;       ///< Empty packets since the last one with sound.
    std::string bytes_;
};

}  // namespace vxweb
