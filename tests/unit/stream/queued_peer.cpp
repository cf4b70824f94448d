#include "tests/unit/stream/queued_peer.h"

#include "stream/enet_unsent.h"

int QueuedPeer::destroyedPackets = 0;

namespace {

constexpr unsigned RELIABLE = ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE;

}  // namespace

QueuedPeer::QueuedPeer() {
    destroyedPackets = 0;
    peer.channels = channels.data();
    lists.push_back(&peer.sentReliableCommands);
#if ENET_VERSION < ENET_VERSION_CREATE(1, 3, 16)
    lists.push_back(&peer.outgoingReliableCommands);
    lists.push_back(&peer.outgoingUnreliableCommands);
#else
    lists.push_back(&peer.outgoingCommands);
#endif
#if ENET_VERSION >= ENET_VERSION_CREATE(1, 3, 18)
    lists.push_back(&peer.outgoingSendReliableCommands);
#endif
    for (ENetList* const list : lists) {
        enet_list_clear(list);
    }
}

QueuedPeer::~QueuedPeer() {
    for (ENetList* const list : lists) {
        release(*list);
    }
}

void QueuedPeer::release(ENetList& list) {
    while (enet_list_begin(&list) != enet_list_end(&list)) {
        auto* const command =
            static_cast<ENetOutgoingCommand*>(enet_list_remove(enet_list_begin(&list)));
        if (command->packet != nullptr && --command->packet->referenceCount == 0) {
            enet_packet_destroy(command->packet);
        }
        enet_free(command);
    }
}

ENetPacket* QueuedPeer::makePacket() {
    static const std::array<char, DATA_LENGTH> data{};
    ENetPacket* const packet =
        enet_packet_create(data.data(), data.size(), ENET_PACKET_FLAG_RELIABLE);
    packet->freeCallback = [](ENetPacket*) { ++destroyedPackets; };
    return packet;
}

ENetList& QueuedPeer::listFor([[maybe_unused]] const ENetOutgoingCommand& command) {
#if ENET_VERSION < ENET_VERSION_CREATE(1, 3, 16)
    return isReliableCommand(command) ? peer.outgoingReliableCommands
                                      : peer.outgoingUnreliableCommands;
#elif ENET_VERSION < ENET_VERSION_CREATE(1, 3, 18)
    return peer.outgoingCommands;
#else
    return isReliableCommand(command) && command.packet != nullptr
               ? peer.outgoingSendReliableCommands
               : peer.outgoingCommands;
#endif
}

ENetOutgoingCommand& QueuedPeer::make(unsigned type, enet_uint8 channel, ENetPacket* packet) {
    auto* const command =
        static_cast<ENetOutgoingCommand*>(enet_malloc(sizeof(ENetOutgoingCommand)));
    *command = ENetOutgoingCommand{};
    command->command.header.command = static_cast<enet_uint8>(type);
    command->command.header.channelID = channel;
    command->packet = packet;
    if (packet != nullptr) {
        ++packet->referenceCount;
        command->fragmentLength = DATA_LENGTH;
    }
    if (channel != ENET_CONTROL_CHANNEL) {
        enet_uint16& number = channels.at(channel).outgoingReliableSequenceNumber;
        number = static_cast<enet_uint16>(number + ((type & RELIABLE) != 0 ? 1 : 0));
        command->reliableSequenceNumber = number;
    }
    peer.outgoingDataTotal +=
        command->fragmentLength +
        static_cast<enet_uint32>(enet_protocol_command_size(command->command.header.command));
    enet_list_insert(enet_list_end(&listFor(*command)), command);
    return *command;
}

ENetOutgoingCommand& QueuedPeer::queueReliable(enet_uint8 channel) {
    return make(ENET_PROTOCOL_COMMAND_SEND_RELIABLE | RELIABLE, channel, makePacket());
}

void QueuedPeer::queueReliable(int count) {
    for (int i = 0; i < count; ++i) {
        queueReliable();
    }
}

std::vector<ENetOutgoingCommand*> QueuedPeer::queueFragments(int count, enet_uint8 channel) {
    ENetPacket* const packet = makePacket();
    std::vector<ENetOutgoingCommand*> fragments;
    for (int i = 0; i < count; ++i) {
        fragments.push_back(&make(ENET_PROTOCOL_COMMAND_SEND_FRAGMENT | RELIABLE, channel, packet));
    }
    return fragments;
}

ENetOutgoingCommand& QueuedPeer::queueUnreliable() {
    return make(ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE, 0, makePacket());
}

ENetOutgoingCommand& QueuedPeer::queuePing() {
    return make(ENET_PROTOCOL_COMMAND_PING | RELIABLE, ENET_CONTROL_CHANNEL, nullptr);
}

void QueuedPeer::addSent() {
    ENetOutgoingCommand& command = queueReliable(enet_uint8{0});
    command.sendAttempts = 1;
    enet_list_remove(&command.outgoingCommandList);
    enet_list_insert(enet_list_end(&peer.sentReliableCommands), &command);
}

std::vector<ENetOutgoingCommand*> QueuedPeer::waiting() {
    std::vector<ENetOutgoingCommand*> commands;
    for (ENetList* const list : lists) {
        if (list == &peer.sentReliableCommands) {
            continue;
        }
        for (ENetListIterator node = enet_list_begin(list); node != enet_list_end(list);
             node = enet_list_next(node)) {
            commands.push_back(reinterpret_cast<ENetOutgoingCommand*>(node));
        }
    }
    return commands;
}

std::vector<int> QueuedPeer::waitingNumbers() {
    std::vector<int> numbers;
    for (const ENetOutgoingCommand* const command : waiting()) {
        if (isReliableCommand(*command)) {
            numbers.push_back(command->reliableSequenceNumber);
        }
    }
    return numbers;
}

void QueuedPeer::setCounter(int number, enet_uint8 channel) {
    channels.at(channel).outgoingReliableSequenceNumber = static_cast<enet_uint16>(number);
}

int QueuedPeer::counter(enet_uint8 channel) const {
    return channels.at(channel).outgoingReliableSequenceNumber;
}
