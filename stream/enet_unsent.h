#pragma once

#include <enet/enet.h>

/// Where ENet keeps the reliable commands that wait to be sent, which differs between releases:
/// - up to 1.3.15 in `outgoingReliableCommands`;
/// - in 1.3.16 and 1.3.17 in `outgoingCommands`, together with unreliable ones;
/// - from 1.3.18 on, those that carry data wait in `outgoingSendReliableCommands`, and
///   `outgoingCommands` holds the rest, ENet's own reliable commands (pings) included.
/// Thread: capture. Realtime-safe: yes, as far as the visitors are.

/// Channel ID of ENet's own commands; `ENetPeer::channels` has no entry for it.
constexpr enet_uint8 ENET_CONTROL_CHANNEL = 255;

inline bool isReliableCommand(const ENetOutgoingCommand& command) {
    return (command.command.header.command & ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE) != 0;
}

/// Calls `visit(command)` for the reliable commands of `list` in queue order. The visitor may
/// unlink and free the command.
template <class Visit>
void visitReliableOf(ENetList& list, Visit& visit) {
    ENetListIterator position = enet_list_begin(&list);
    while (position != enet_list_end(&list)) {
        // A list node is the first member of its command.
        auto& command = *reinterpret_cast<ENetOutgoingCommand*>(position);
        position = enet_list_next(position);
        if (isReliableCommand(command)) {
            visit(command);
        }
    }
}

/// Calls `visit(command)` for every reliable command that waits to be sent, for the first time or
/// again; per channel in the order of sending. The visitor may unlink and free the command.
template <class Visit>
void visitWaitingReliable(ENetPeer& peer, Visit visit) {
#if ENET_VERSION < ENET_VERSION_CREATE(1, 3, 16)
    visitReliableOf(peer.outgoingReliableCommands, visit);
#else
    visitReliableOf(peer.outgoingCommands, visit);
#endif
#if ENET_VERSION >= ENET_VERSION_CREATE(1, 3, 18)
    visitReliableOf(peer.outgoingSendReliableCommands, visit);
#endif
}

/// Calls `visit(command)` for every reliable command of a client's channels that has never been
/// sent; otherwise as visitWaitingReliable.
template <class Visit>
void visitUnsentReliable(ENetPeer& peer, Visit visit) {
    visitWaitingReliable(peer, [&visit](ENetOutgoingCommand& command) {
        if (command.sendAttempts == 0 && command.command.header.channelID != ENET_CONTROL_CHANNEL) {
            visit(command);
        }
    });
}
