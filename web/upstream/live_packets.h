#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "listen/network/audio_packet.h"
#include "web/packet.h"

namespace vxweb {

/// The messages of /live as WebSocket frames, and chunks of media streams as HTTP/1.1 chunks. `now`
/// in microseconds of steadyNow(). Thread: any.

/// The text message with the format of the following sound. `sampleRate` in Hz.
PacketPtr makeFormat(bool opus, int sampleRate, const std::string& title, std::int64_t now);

/// The text message that says that the server is away.
PacketPtr makeWaiting(std::int64_t now);

/// The binary message with the payload of one packet that came at `now`.
PacketPtr makeSound(const vxlisten::AudioPacket& packet, std::int64_t now);

/// The same, which also tells `now` and `roundTrip` (microseconds).
PacketPtr makeTimedSound(const vxlisten::AudioPacket& packet, std::int64_t now,
                         std::int64_t roundTrip);

/// A piece of a media stream: of its sound, or its header.
PacketPtr makeChunk(std::string_view body, bool sound, std::int64_t now);

}  // namespace vxweb
