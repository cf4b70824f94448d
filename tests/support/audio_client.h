#pragma once

#include <cstdint>
#include <functional>

#include <enet/enet.h>

/// The request of a measuring client to a server on this machine.
struct AudioChoice {
    enet_uint16 port;
    std::uint32_t rateCode;
    bool reliable;
};

/// Connects, requests data and calls `take` for every audio packet (borrowed) with its time of
/// arrival (CLOCK_MONOTONIC, nanoseconds), until standard input is closed or the server ends the
/// connection. Returns the number of packets, negative when no host could be created.
long receiveAudio(const AudioChoice& choice,
                  const std::function<void(const ENetPacket&, std::int64_t)>& take);
