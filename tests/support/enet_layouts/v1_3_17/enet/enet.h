#pragma once

#include "tests/support/enet_layouts/common/enet_fields.h"

#define ENET_VERSION ENET_VERSION_CREATE(1, 3, 17)

/// A release with one list for all commands that wait.
struct ENetPeer {
    ENetPeerState state;
    ENetChannel* channels;
    enet_uint32 outgoingDataTotal;
    ENetList sentReliableCommands;
    ENetList outgoingCommands;
};
