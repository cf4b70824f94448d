#pragma once

#include <cstdint>
#include <functional>

#include <enet/enet.h>

/// What a measuring client asks a server on this machine for.
struct AudioChoice {
    enet_uint16 port;
    std::uint32_t rateCode;
    bool reliable;
};

/// Connects, asks for data and calls `take` for every audio packet (borrowed) with its time of
/// arrival (CLOCK_MONOTONIC, nanoseconds), until standard input is closed or the server ends the
/// connection. Returns the number of packets, negative when there is no host to be had.
long receiveAudio(const AudioChoice& choice,
                  const std::function<void(const ENetPacket&, std::int64_t)>& take);
