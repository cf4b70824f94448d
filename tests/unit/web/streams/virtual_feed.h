#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opus/opus.h>

#include "listen/network/sequence_tracker.h"
#include "tests/support/packets.h"
#include "web/streams/media_stream.h"

/// A server's feed of a tone, and the stream made of it, in virtual time.
class VirtualFeed {
  public:
    static constexpr double TONE_HZ = 997;
    static constexpr double TONE_PEAK = 10000;

    /// `rate` in kbit/s as for makeMediaStream().
    VirtualFeed(vxweb::StreamFormat format, int rate);

    /// Sound of this length, packet by packet in time.
    void play(std::int64_t milliseconds);
    /// Nothing arrives for this time. `every`: milliseconds between the calls of pass().
    void pass(std::int64_t milliseconds, std::int64_t every = 20);
    /// As long as that nothing arrives; what was sent meanwhile then comes at once.
    void stall(std::int64_t milliseconds);
    /// So many packets get lost, in the time they take.
    void lose(std::uint32_t packets);
    /// The packets of this much sound are lost, which only the next ones show: no time passes.
    void skip(std::uint32_t packets) { seq_ += packets; }
    /// A new connection follows, from whose server sound of `sampleRate` comes.
    void reconnect(int sampleRate = 48000);
    /// The server's sound has another rate from now on.
    void changeRate(int sampleRate) { sampleRate_ = sampleRate; }
    /// One packet of the feed with another payload, in the time of an Opus packet.
    void send(const packets::Bytes& payload);
    /// One packet as the server would send it next.
    packets::Bytes next();
    /// The number of the next packet.
    void setNumber(std::uint32_t seq) { seq_ = seq; }

    /// The output until now for a listener that began with chunk number `first`.
    [[nodiscard]] std::string heard(std::size_t first = 0) const;
    [[nodiscard]] std::size_t chunks() const { return chunks_.size(); }
    [[nodiscard]] const std::vector<vxweb::Chunk>& emitted() const { return chunks_; }
    /// Seconds since the first call.
    [[nodiscard]] double seconds() const { return static_cast<double>(now_ - START) / 1e6; }
    /// Payloads of all packets that arrived.
    [[nodiscard]] const std::vector<packets::Bytes>& arrived() const { return arrived_; }
    /// Counts what is emitted and forgets it.
    void forget() { forgetful_ = true; }
    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

  private:
    static constexpr std::int64_t START = 5'000'000;

    [[nodiscard]] std::size_t frames() const;
    packets::Bytes tone(std::size_t frames);
    packets::Bytes encode(const packets::Bytes& sound);
    packets::Bytes make(const packets::Bytes& payload);
    void deliver(const packets::Bytes& packet);
    void advance(std::int64_t microseconds, std::int64_t every = 20);
    void keep(const vxweb::Chunk& chunk);
    std::int64_t packetTime();

    std::unique_ptr<vxweb::MediaStream> stream_;
    std::uint32_t rateCode_;
    struct EncoderDeleter {
        void operator()(OpusEncoder* encoder) const { opus_encoder_destroy(encoder); }
    };
    std::unique_ptr<OpusEncoder, EncoderDeleter> encoder_;
    vxlisten::SequenceTracker tracker_;
    std::int64_t now_ = START;
    std::int64_t nextPass_ = START;
    std::int64_t fraction_ = 0;  ///< Of a microsecond, in frames.
    std::uint64_t played_ = 0;   ///< Frames of the tone.
    int sampleRate_ = 48000;
    std::uint32_t seq_ = 0;
    std::vector<vxweb::Chunk> chunks_;
    std::vector<packets::Bytes> arrived_;
    bool forgetful_ = false;
    std::uint64_t bytes_ = 0;
};
