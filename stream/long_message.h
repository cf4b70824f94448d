#pragma once

#include <cstddef>

#include <enet/enet.h>

/// How much of a client's message is kept, in bytes; control messages have less than 300. What a
/// datagram brings of a longer one overwrites the end of what is kept.
constexpr std::size_t MAX_MESSAGE_BYTES = std::size_t{16} * 1024;

/// Makes the pieces of longer messages in a received datagram say that the message is of that
/// length, so that ENet takes it without having room for all of it. What ENet would refuse anyway
/// stays as it is. Thread: capture, before ENet reads the datagram. Realtime-safe: yes.
void cutLongMessages(enet_uint8* datagram, std::size_t length);
