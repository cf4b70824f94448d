#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <enet/enet.h>
#include <opus/opus.h>

#include "stream/wire_format.h"
#include "tests/soak/soak_tally.h"
#include "tests/support/capture_table.h"

/// Holds every audio packet of one connection against what the paced capture played, and when.
class PacketCheck {
  public:
    /// Both are borrowed; what has been heard is added to the tally.
    PacketCheck(const CaptureTable& captureTable, SoakTally& soakTally);

    /// A new connection: the sequence numbers may start anywhere.
    void restart();

    /// Empty when the packet is right, otherwise what is wrong with it. Called without delay after
    /// the packet's arrival; `mayBeLate` for a client that has yet to catch up.
    std::string check(const ENetPacket& packet, bool mayBeLate);

    /// True when the last packet held sound of the present, give or take a full backlog.
    [[nodiscard]] bool present() const { return previous.present; }

    /// True when it was so young that nothing behind it can have been dropped.
    [[nodiscard]] bool upToDate() const { return previous.upToDate; }

  private:
    struct DecoderDeleter {
        void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
    };

    /// The last packet of any kind.
    struct Previous {
        std::uint32_t flags = 0;
        bool present = false;
        bool upToDate = false;
    };

    std::string checkForm(const ENetPacket& packet, const wire::PacketHeader& header) const;
    std::string checkOrder(const wire::PacketHeader& header, bool mayBeLate);
    std::string checkAge(const wire::PacketHeader& header, bool mayBeLate);
    std::string checkSound(const ENetPacket& packet, const wire::PacketHeader& header);
    std::string checkFrames(const unsigned char* frames, std::uint64_t first,
                            std::size_t count) const;
    void countPacket(const ENetPacket& packet, const wire::PacketHeader& header);

    const CaptureTable& table;
    SoakTally& tally;
    std::vector<std::int16_t> sound;
    std::unique_ptr<OpusDecoder, DecoderDeleter> decoder;
    std::optional<std::uint32_t> lastRaw;
    std::optional<std::uint32_t> lastCompressed;
    Previous previous;
    long reliableOnConnection = 0;
};
