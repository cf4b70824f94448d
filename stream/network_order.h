#pragma once

#include <enet/enet.h>

// Numbers in ENet's datagrams: in network byte order, and aligned to nothing. Realtime-safe.

inline enet_uint16 readU16(const enet_uint8* at) {
    return static_cast<enet_uint16>(at[0] << 8 | at[1]);
}

inline enet_uint32 readU32(const enet_uint8* at) {
    return static_cast<enet_uint32>(readU16(at)) << 16 | readU16(at + 2);
}

inline void writeU32(enet_uint8* at, enet_uint32 value) {
    for (int i = 3; i >= 0; --i) {
        at[i] = static_cast<enet_uint8>(value);
        value >>= 8;
    }
}
