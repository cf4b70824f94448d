#include "stream/command_cost.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "stream/capture_thread.h"
#include "stream/enet_unsent.h"
#include "stream/event_backlog.h"
#include "stream/network_order.h"

namespace {

/// A number this far ahead or further is behind.
constexpr enet_uint16 MIN_BEHIND = 0x8000;

/// Early commands may fill half of the room for a client's messages; the other half is for commands
/// that are due.
constexpr std::size_t MAX_EARLY_BYTES = MAX_WAITING_BYTES / 2;

/// How many steps ENet may still make for one peer.
struct Account {
    enet_uint32 time = 0;  ///< ENet's, of the last update.
    std::size_t steps = 0;
};

/// The peer's steps, updated. A new client of the same peer inherits them.
std::size_t& stepsOf(const ENetPeer& peer) {
    static std::array<Account, 32> accounts;
    Account& account = accounts[peer.incomingPeerID % accounts.size()];
    const std::size_t passed =
        std::min<std::size_t>(peer.host->serviceTime - account.time, MAX_STEPS / STEPS_PER_MS);
    account.time = peer.host->serviceTime;
    account.steps = std::min(account.steps + passed * STEPS_PER_MS, MAX_STEPS);
    return account.steps;
}

/// False when fewer are left, which are then used up.
bool spend(std::size_t& left, std::size_t steps) {
    const bool enough = steps <= left;
    left -= enough ? steps : left;
    return enough;
}

/// Early commands of all clients that wait.
std::size_t countEarly(const ENetHost& host) {
    std::size_t early = 0;
    std::for_each(host.peers, host.peers + host.peerCount, [&early](ENetPeer& peer) {
        std::for_each(peer.channels, peer.channels + peer.channelCount, [&](ENetChannel& channel) {
            early += enet_list_size(&channel.incomingReliableCommands) +
                     enet_list_size(&channel.incomingUnreliableCommands);
        });
    });
    return early;
}

/// Whether the early commands of all clients have reached their maximum. Counts them again only
/// when as many may wait, at maximum once in a millisecond.
class EarlyTotal {
  public:
    bool isFull(const ENetHost& host) {
        if (early_ >= MAX_EARLY_TOTAL && host.serviceTime != countedAt_) {
            early_ = countEarly(host);
            countedAt_ = host.serviceTime;
        }
        return early_ >= MAX_EARLY_TOTAL;
    }

    void add() { ++early_; }

  private:
    std::size_t early_ = 0;  ///< An upper bound.
    enet_uint32 countedAt_ = 0;
};

EarlyTotal earlyTotal;

/// How far a command is ahead of what its channel has completed; 0: it is due, or behind.
enet_uint16 aheadOf(const ENetChannel& channel, enet_uint16 number) {
    const auto ahead = static_cast<enet_uint16>(number - channel.incomingReliableSequenceNumber);
    return ahead < MIN_BEHIND ? ahead : enet_uint16{0};
}

/// ENet looks for the place of a reliable command from the last one backwards.
bool reliableCostsTooMuch(const ENetPeer& peer, ENetChannel& channel, enet_uint16 number) {
    std::size_t& left = stepsOf(peer);
    const enet_uint16 ahead = aheadOf(channel, number);
    const std::size_t maximum =
        earlyTotal.isFull(*peer.host) ? MAX_EARLY_WHEN_FULL : MAX_EARLY_RELIABLE;
    const bool noRoom = ahead > 1 && peer.totalWaitingData >= MAX_EARLY_BYTES;
    if (ahead == 0 || ahead > maximum || noRoom || left == 0) {
        return ahead != 0;
    }
    earlyTotal.add();
    std::size_t steps = 0;
    ENetList& waiting = channel.incomingReliableCommands;
    for (ENetListIterator node = enet_list_previous(enet_list_end(&waiting));
         node != enet_list_end(&waiting) && steps <= left; node = enet_list_previous(node)) {
        // A list node is the first member of its command.
        const auto& command = *reinterpret_cast<const ENetIncomingCommand*>(node);
        if (aheadOf(channel, command.reliableSequenceNumber) <= ahead) {
            break;
        }
        ++steps;
    }
    return !spend(left, steps);
}

/// Any number of unreliable commands can wait for the same reliable one.
bool unreliableCostsTooMuch(const ENetPeer& peer, ENetChannel& channel, enet_uint16 number) {
    if (aheadOf(channel, number) == 0) {
        return false;
    }
    const std::size_t maximum =
        earlyTotal.isFull(*peer.host) ? MAX_EARLY_WHEN_FULL : MAX_EARLY_UNRELIABLE;
    earlyTotal.add();
    ENetList& waiting = channel.incomingUnreliableCommands;
    std::size_t steps = 0;
    for (ENetListIterator node = enet_list_begin(&waiting);
         node != enet_list_end(&waiting) && steps < maximum; node = enet_list_next(node)) {
        ++steps;
    }
    return steps == maximum || !spend(stepsOf(peer), steps);
}

/// ENet looks for an acknowledged command among those under way, then among those to be sent again.
bool acknowledgementCostsTooMuch(ENetPeer& peer, enet_uint8 channel, enet_uint16 number,
                                 std::size_t& left) {
    std::size_t steps = 0;
    for (ENetListIterator node = enet_list_begin(&peer.sentReliableCommands);
         node != enet_list_end(&peer.sentReliableCommands) && steps <= left;
         node = enet_list_next(node)) {
        ++steps;
        const auto& command = *reinterpret_cast<const ENetOutgoingCommand*>(node);
        if (command.reliableSequenceNumber == number &&
            command.command.header.channelID == channel) {
            return !spend(left, steps);
        }
    }
    if (left != 0) {
        visitWaitingReliable(peer, [&steps](ENetOutgoingCommand&) { ++steps; });
    }
    return !spend(left, steps);
}

}  // namespace

bool costsTooMuch(ENetPeer& peer, const enet_uint8* command) {
    assert(captureThread.here());
    const unsigned type = *command & ENET_PROTOCOL_COMMAND_MASK;
    const enet_uint8 channel = command[offsetof(ENetProtocolCommandHeader, channelID)];
    const auto numberAt = [command](std::size_t offset) { return readU16(command + offset); };
    if (type == ENET_PROTOCOL_COMMAND_ACKNOWLEDGE) {
        return acknowledgementCostsTooMuch(
            peer, channel,
            numberAt(offsetof(ENetProtocolAcknowledge, receivedReliableSequenceNumber)),
            stepsOf(peer));
    }
    if (channel >= peer.channelCount) {
        return false;
    }
    constexpr std::size_t NUMBER = offsetof(ENetProtocolCommandHeader, reliableSequenceNumber);
    switch (type) {
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
            return reliableCostsTooMuch(peer, peer.channels[channel], numberAt(NUMBER));
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
            return reliableCostsTooMuch(
                peer, peer.channels[channel],
                numberAt(offsetof(ENetProtocolSendFragment, startSequenceNumber)));
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
            return unreliableCostsTooMuch(peer, peer.channels[channel], numberAt(NUMBER));
        default:
            return false;
    }
}
