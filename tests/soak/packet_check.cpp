#include "tests/soak/packet_check.h"

#include <cstring>

#include "tests/support/test_sound.h"

namespace {

constexpr long ENET_NUMBERS = 65536;

/// Blocks or groups behind the capture. The server drops a client's backlog only when more than
/// 75 packets wait, and looks at it every 15: behind a younger packet nothing may be missing.
constexpr std::uint64_t NOTHING_DROPPED = 30;

/// The backlog and what is under way.
constexpr std::uint64_t PRESENT = 300;

/// Of a client that keeps up; far less than what the table remembers.
constexpr std::uint64_t MAX_BEHIND = 4000;

static_assert(testsound::BLOCK_FRAMES == wire::RAW_BLOCK_FRAMES);

bool isRaw(const wire::PacketHeader& header) {
    return header.rateCode() == wire::RATE_CODE_RAW;
}

/// True when `seq` does not lie behind `last`, across the wrap as well.
bool goesForward(std::uint32_t last, std::uint32_t seq) {
    return static_cast<std::int32_t>(seq - last) > 0;
}

}  // namespace

PacketCheck::PacketCheck(const CaptureTable& captureTable, SoakTally& soakTally)
    : table(captureTable),
      tally(soakTally),
      sound(testsound::make()),
      decoder(opus_decoder_create(48000, 2, nullptr)) {}

void PacketCheck::restart() {
    lastRaw.reset();
    lastCompressed.reset();
    previous = Previous{};
    reliableOnConnection = 0;
}

std::string PacketCheck::check(const ENetPacket& packet, bool mayBeLate) {
    const wire::PacketHeader header = wire::readHeader(packet.data, packet.dataLength);
    std::string problem = checkForm(packet, header);
    if (!problem.empty()) {
        return problem;
    }
    countPacket(packet, header);
    problem = checkOrder(header, mayBeLate);
    const std::string age = checkAge(header, mayBeLate);
    if (problem.empty()) {
        problem = age;
    }
    return problem.empty() ? checkSound(packet, header) : problem;
}

std::string PacketCheck::checkForm(const ENetPacket& packet,
                                   const wire::PacketHeader& header) const {
    if (packet.dataLength < wire::HEADER_LENGTH || header.msgId != wire::MSGID_AUDIO) {
        return "not an audio packet";
    }
    const std::uint32_t known = wire::makeFlags(true, true, wire::RATE_CODE_MASK);
    if (!header.altRate() || (header.flags & ~known) != 0) {
        return "flags " + std::to_string(header.flags);
    }
    // The other way round is right: ENet sends every 65,536th best-effort packet reliably.
    if (header.reliable() && (packet.flags & ENET_PACKET_FLAG_RELIABLE) == 0) {
        return "reliable packet sent best-effort";
    }
    const bool opus = wire::bitRateOf(header.rateCode()) != 0;
    const std::size_t length =
        isRaw(header) ? wire::RAW_BUFFER_LENGTH : wire::COMPRESSED_BUFFER_LENGTH;
    return opus || packet.dataLength == length
               ? ""
               : "uncompressed packet of " + std::to_string(packet.dataLength) + " bytes";
}

void PacketCheck::countPacket(const ENetPacket& packet, const wire::PacketHeader& header) {
    ++tally.byRateCode[header.rateCode()];
    ++(header.reliable() ? tally.reliable : tally.bestEffort);
    if (!isRaw(header) && wire::bitRateOf(header.rateCode()) == 0) {
        ++tally.fallback;
    }
    if ((packet.flags & ENET_PACKET_FLAG_RELIABLE) != 0 &&
        ++reliableOnConnection % ENET_NUMBERS == 0) {
        ++tally.enetWraps;
    }
}

std::string PacketCheck::checkOrder(const wire::PacketHeader& header, bool mayBeLate) {
    std::optional<std::uint32_t>& last = isRaw(header) ? lastRaw : lastCompressed;
    const std::optional<std::uint32_t> before = last;
    last = header.seq;
    if (!before) {
        return {};
    }
    const std::string numbers = std::string(isRaw(header) ? "raw" : "compressed") + " packet " +
                                std::to_string(header.seq) + " after " + std::to_string(*before);
    if (!goesForward(*before, header.seq)) {
        return numbers;
    }
    if (header.seq < *before) {
        ++(isRaw(header) ? tally.rawWraps : tally.compressedWraps);
    }
    if (mayBeLate || !header.reliable() || header.flags != previous.flags || !previous.upToDate) {
        return {};
    }
    ++tally.steps;
    return header.seq == *before + 1 ? "" : "gap: " + numbers;
}

std::string PacketCheck::checkAge(const wire::PacketHeader& header, bool mayBeLate) {
    // The callback under way is not counted yet: its block and its group are the youngest.
    const std::uint64_t callbacks = table.callbacks.load();
    const std::uint64_t groups =
        (callbacks + 1) * wire::RAW_BLOCK_FRAMES / wire::OPUS_FRAME_SAMPLES;
    const std::uint64_t made = isRaw(header) ? callbacks + 1 : groups;
    const std::uint32_t first =
        isRaw(header) ? table.firstRaw.load() : table.firstCompressed.load();
    const std::uint64_t number = header.seq - first;
    previous.flags = header.flags;
    previous.present = number < made && made - number <= PRESENT;
    previous.upToDate = number < made && made - number <= NOTHING_DROPPED;
    if (number >= made) {
        return "number " + std::to_string(number) + " when only " + std::to_string(made) +
               " were made";
    }
    return mayBeLate || made - number <= MAX_BEHIND
               ? ""
               : std::to_string(made - number) + " blocks behind the capture";
}

std::string PacketCheck::checkSound(const ENetPacket& packet, const wire::PacketHeader& header) {
    const unsigned char* const payload = packet.data + wire::HEADER_LENGTH;
    if (isRaw(header)) {
        const std::uint64_t block = header.seq - table.firstRaw.load();
        return checkFrames(payload, block * wire::RAW_BLOCK_FRAMES, wire::RAW_BLOCK_FRAMES);
    }
    if (wire::bitRateOf(header.rateCode()) == 0) {
        const std::uint64_t group = header.seq - table.firstCompressed.load();
        return checkFrames(payload, group * wire::OPUS_FRAME_SAMPLES, wire::OPUS_FRAME_SAMPLES);
    }
    std::int16_t frames[2 * wire::OPUS_FRAME_SAMPLES];
    const int decoded = opus_decode(
        decoder.get(), payload, static_cast<opus_int32>(packet.dataLength - wire::HEADER_LENGTH),
        frames, wire::OPUS_FRAME_SAMPLES, 0);
    return decoded == static_cast<int>(wire::OPUS_FRAME_SAMPLES) ? "" : "undecodable Opus packet";
}

std::string PacketCheck::checkFrames(const unsigned char* frames, std::uint64_t first,
                                     std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t frame = first + i;
        const std::size_t inBlock = frame % testsound::BLOCK_FRAMES * wire::BYTES_PER_FRAME;
        const std::size_t inLoop = frame % (testsound::BLOCKS * testsound::BLOCK_FRAMES);
        unsigned char expected[wire::BYTES_PER_FRAME];
        if (inBlock < testsound::STAMP_BYTES) {
            const std::uint64_t block = frame / testsound::BLOCK_FRAMES;
            const std::int64_t entry = table.rawEntry[block % CaptureTable::REMEMBERED].load();
            std::memcpy(expected, reinterpret_cast<const unsigned char*>(&entry) + inBlock,
                        sizeof expected);
        } else {
            std::memcpy(expected, &sound[2 * inLoop], sizeof expected);
        }
        if (std::memcmp(frames + i * wire::BYTES_PER_FRAME, expected, sizeof expected) != 0) {
            return "wrong sample at frame " + std::to_string(frame);
        }
    }
    return {};
}
