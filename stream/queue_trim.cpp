#include "stream/queue_trim.h"

#include <array>
#include <cstddef>

#include <enet/enet.h>

#include "app/base/console.h"
#include "stream/enet_unsent.h"

namespace {

/// The number of the first command that a trim removes from each channel.
class FirstRemoved {
  public:
    void note(enet_uint8 channel, enet_uint16 number) {
        if (!seen[channel]) {
            seen[channel] = true;
            first[channel] = number;
        }
    }

    /// Lets the next command of each channel take the place of the first removed one. Done from
    /// the remembered number, not by comparing counters, because the queue may span the 16-bit
    /// wrap: after 65535 a lower number is the later one.
    void rollBack(ENetChannel* channels) const {
        for (std::size_t channel = 0; channel < seen.size(); ++channel) {
            if (seen[channel]) {
                channels[channel].outgoingReliableSequenceNumber =
                    static_cast<enet_uint16>(first[channel] - 1);
            }
        }
    }

  private:
    std::array<bool, ENET_CONTROL_CHANNEL> seen{};
    std::array<enet_uint16, ENET_CONTROL_CHANNEL> first{};
};

std::size_t countWaiting(ENetPeer& peer) {
    std::size_t count = 0;
    visitWaitingReliable(peer, [&count](ENetOutgoingCommand&) { ++count; });
    return count;
}

unsigned long sentCount(ENetPeer& peer) {
    return static_cast<unsigned long>(enet_list_size(&peer.sentReliableCommands));
}

void removeCommand(ENetPeer& peer, ENetOutgoingCommand& command) {
    enet_list_remove(&command.outgoingCommandList);
    if (command.packet != nullptr && --command.packet->referenceCount == 0) {
        enet_packet_destroy(command.packet);
    }
    peer.outgoingDataTotal -=
        command.fragmentLength +
        static_cast<enet_uint32>(enet_protocol_command_size(command.command.header.command));
    enet_free(&command);
}

void trim(ENetPeer& peer, std::size_t waiting) {
    consolePrintf("Clearing outgoing msg queue, outgoing/sent queue sizes: %d/%lu\n",
                  static_cast<int>(waiting), sentCount(peer));
    int removed = 0;
    FirstRemoved firstRemoved;
    visitUnsentReliable(peer, [&](ENetOutgoingCommand& command) {
        firstRemoved.note(command.command.header.channelID, command.reliableSequenceNumber);
        removeCommand(peer, command);
        ++removed;
    });
    firstRemoved.rollBack(peer.channels);
    consolePrintf("Removed %d outgoing messages\n", removed);
}

}  // namespace

void trimOutgoingQueue(const ClientSlot& slot, std::uint32_t seq) {
    ENetPeer& peer = *slot.peer;
    const std::size_t waiting = countWaiting(peer);
    if (waiting > QUEUE_TRIM_THRESHOLD && slot.reliable != 0) {
        trim(peer, waiting);
    } else if (seq % QUEUE_REPORT_INTERVAL == 0 && waiting > 1) {
        consolePrintf("Outgoing/sent queue sizes: %d/%lu\n", static_cast<int>(waiting),
                      sentCount(peer));
    }
}
