#include "web/upstream/live_packets.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <utility>

#include <nlohmann/json.hpp>

namespace vxweb {

namespace {

constexpr unsigned char WHOLE_TEXT = 0x81;
constexpr unsigned char WHOLE_BINARY = 0x82;
constexpr std::size_t MAX_SHORT_LENGTH = 125;  ///< Longer messages have two more bytes of length.

/// The beginning of a message of at most 65535 bytes.
std::string frameOf(unsigned char kind, std::size_t length) {
    std::string frame(1, static_cast<char>(kind));
    if (length <= MAX_SHORT_LENGTH) {
        frame.push_back(static_cast<char>(length));
    } else {
        frame.push_back(static_cast<char>(MAX_SHORT_LENGTH + 1));
        frame.push_back(static_cast<char>(length >> 8));
        frame.push_back(static_cast<char>(length & 0xFF));
    }
    return frame;
}

PacketPtr makePacket(std::string frame, std::string_view body, std::string_view end, bool sound,
                     std::int64_t now) {
    auto packet = std::make_shared<Packet>();
    packet->bodyBegin = frame.size();
    packet->bodyLength = body.size();
    packet->bytes = std::move(frame);
    packet->bytes.append(body).append(end);
    packet->time = now;
    packet->sound = sound;
    return packet;
}

PacketPtr makeText(const nlohmann::ordered_json& content, std::int64_t now) {
    const std::string text =
        content.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    return makePacket(frameOf(WHOLE_TEXT, text.size()), text, {}, false, now);
}

/// `times` stands between the header and the payload.
PacketPtr makeBinary(const vxlisten::AudioPacket& packet, std::int64_t now,
                     std::string_view times) {
    std::array<unsigned char, 8> header{};
    wire::writeU32(header.data(), packet.seq);
    wire::writeU32(header.data() + 4, static_cast<std::uint32_t>(packet.frames));
    std::string frame = frameOf(WHOLE_BINARY, header.size() + times.size() + packet.payloadLength);
    frame.append(reinterpret_cast<const char*>(header.data()), header.size()).append(times);
    const std::string_view payload(reinterpret_cast<const char*>(packet.payload),
                                   packet.payloadLength);
    return makePacket(std::move(frame), payload, {}, true, now);
}

}  // namespace

PacketPtr makeFormat(bool opus, int sampleRate, const std::string& title, std::int64_t now) {
    return makeText({{"format", opus ? "opus" : "pcm"},
                     {"sampleRate", sampleRate},
                     {"channels", 2},
                     {"title", title}},
                    now);
}

PacketPtr makeWaiting(std::int64_t now) {
    return makeText({{"state", "waiting"}}, now);
}

PacketPtr makeSound(const vxlisten::AudioPacket& packet, std::int64_t now) {
    return makeBinary(packet, now, {});
}

PacketPtr makeTimedSound(const vxlisten::AudioPacket& packet, std::int64_t now,
                         std::int64_t roundTrip) {
    constexpr std::int64_t MAXIMUM = std::numeric_limits<std::uint32_t>::max();
    std::array<unsigned char, 12> times{};
    wire::writeU32(times.data(), static_cast<std::uint32_t>(now));
    wire::writeU32(times.data() + 4, static_cast<std::uint32_t>(now >> 32));
    wire::writeU32(times.data() + 8, static_cast<std::uint32_t>(std::min(roundTrip, MAXIMUM)));
    return makeBinary(packet, now, {reinterpret_cast<const char*>(times.data()), times.size()});
}

PacketPtr makeChunk(std::string_view body, bool sound, std::int64_t now) {
    char length[24] = "";
    std::snprintf(length, sizeof length, "%zx\r\n", body.size());
    return makePacket(length, body, "\r\n", sound, now);
}

}  // namespace vxweb
