#pragma once

#include "tests/support/enet_layouts/common/enet_fields.h"

#define ENET_VERSION ENET_VERSION_CREATE(1, 3, 15)

/// A release with separate lists of reliable and unreliable commands.
struct ENetPeer {
    ENetPeerState state;
    ENetChannel* channels;
    enet_uint32 outgoingDataTotal;
    ENetList sentReliableCommands;
    ENetList outgoingReliableCommands;
    ENetList outgoingUnreliableCommands;
};
