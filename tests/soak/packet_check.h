#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <enet/enet.h>
#include <opus/opus.h>

#include "bench/capture_table.h"

/// Holds every audio packet of one connection against what the paced capture played.
class PacketCheck {
  public:
    explicit PacketCheck(const CaptureTable& captureTable);

    /// A new connection: the sequence numbers may start anywhere.
    void restart();

    /// Empty when the packet is right, otherwise what is wrong with it.
    std::string check(const ENetPacket& packet);

  private:
    struct DecoderDeleter {
        void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
    };

    std::string checkRaw(const ENetPacket& packet, std::uint32_t seq);
    std::string checkCompressed(const ENetPacket& packet, std::uint32_t seq,
                                std::uint32_t rateCode);
    std::string checkFrames(const unsigned char* frames, std::uint64_t first, std::size_t count);

    const CaptureTable& table;
    std::vector<std::int16_t> sound;
    std::unique_ptr<OpusDecoder, DecoderDeleter> decoder;
    std::optional<std::uint32_t> lastRaw;
    std::optional<std::uint32_t> lastCompressed;
};
