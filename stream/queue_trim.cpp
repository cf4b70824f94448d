#include "stream/queue_trim.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>

#include <enet/enet.h>

#include "app/base/console.h"
#include "stream/capture_thread.h"
#include "stream/enet_unsent.h"

namespace {

std::size_t countWaiting(ENetPeer& peer) {
    std::size_t count = 0;
    visitWaitingReliable(peer, [&count](ENetOutgoingCommand&) { ++count; });
    return count;
}

unsigned long sentCount(ENetPeer& peer) {
    return static_cast<unsigned long>(enet_list_size(&peer.sentReliableCommands));
}

/// Makes the number of a removed command the channel's next, unless an earlier one is already. The
/// difference is signed, because the numbers wrap.
void giveBackNumber(ENetChannel& channel, enet_uint16 number) {
    enet_uint16& last = channel.outgoingReliableSequenceNumber;
    if (static_cast<std::int16_t>(last - number) >= 0) {
        last = static_cast<enet_uint16>(number - 1);
    }
}

void removeCommand(ENetPeer& peer, ENetOutgoingCommand& command) {
    enet_list_remove(&command.outgoingCommandList);
    if (command.packet != nullptr && --command.packet->referenceCount == 0) {
        enet_packet_destroy(command.packet);
    }
    const auto bytes =
        command.fragmentLength +
        static_cast<enet_uint32>(enet_protocol_command_size(command.command.header.command));
    // ENet clears the total every second.
    peer.outgoingDataTotal -= std::min(bytes, peer.outgoingDataTotal);
    enet_free(&command);
}

void trim(ENetPeer& peer, std::size_t waiting) {
    consolePrintf("Clearing outgoing msg queue, outgoing/sent queue sizes: %d/%lu\n",
                  static_cast<int>(waiting), sentCount(peer));
    int removed = 0;
    visitUnsentReliable(peer, [&](ENetOutgoingCommand& command) {
        giveBackNumber(peer.channels[command.command.header.channelID],
                       command.reliableSequenceNumber);
        removeCommand(peer, command);
        ++removed;
    });
    consolePrintf("Removed %d outgoing messages\n", removed);
}

}  // namespace

void trimOutgoingQueue(const ClientSlot& slot, std::uint32_t seq) {
    assert(captureThread.here() && seq % QUEUE_CHECK_INTERVAL == 0);
    ENetPeer& peer = *slot.peer;
    const std::size_t waiting = countWaiting(peer);
    if (waiting > QUEUE_TRIM_THRESHOLD && slot.reliable != 0) {
        trim(peer, waiting);
    } else if (seq % QUEUE_REPORT_INTERVAL == 0 && waiting > 1) {
        consolePrintf("Outgoing/sent queue sizes: %d/%lu\n", static_cast<int>(waiting),
                      sentCount(peer));
    }
}
