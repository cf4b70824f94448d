#pragma once

#include "tests/support/enet_layouts/common/enet_fields.h"

#define ENET_VERSION ENET_VERSION_CREATE(1, 3, 18)

/// A release with one list for reliable commands that carry data and one for all others.
struct ENetPeer {
    ENetPeerState state;
    ENetChannel* channels;
    enet_uint32 outgoingDataTotal;
    ENetList sentReliableCommands;
    ENetList outgoingCommands;
    ENetList outgoingSendReliableCommands;
};
