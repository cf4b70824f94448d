#pragma once

#include <array>
#include <vector>

#include <enet/enet.h>

/// A peer as ENet leaves it while its client does not keep up: commands wait in the lists in
/// which the ENet release that this is compiled for puts them. Owns everything that it holds.
class QueuedPeer {
  public:
    QueuedPeer();
    ~QueuedPeer();
    QueuedPeer(const QueuedPeer&) = delete;
    QueuedPeer& operator=(const QueuedPeer&) = delete;

    static constexpr enet_uint16 DATA_LENGTH = 1368;

    /// Queues a reliable command with a new packet and the channel's next number.
    ENetOutgoingCommand& queueReliable(enet_uint8 channel = 0);
    void queueReliable(int count);

    /// Queues the fragments of one reliable packet.
    std::vector<ENetOutgoingCommand*> queueFragments(int count, enet_uint8 channel = 0);

    ENetOutgoingCommand& queueUnreliable();

    /// Queues a ping of ENet's own.
    ENetOutgoingCommand& queuePing();

    /// Puts a command that waits for its acknowledgement into the sent list.
    void addSent();

    /// Every waiting command, reliable or not, in queue order.
    std::vector<ENetOutgoingCommand*> waiting();
    /// The numbers of the waiting reliable commands.
    std::vector<int> waitingNumbers();

    void setCounter(int number, enet_uint8 channel = 0);
    [[nodiscard]] int counter(enet_uint8 channel = 0) const;

    /// Packets destroyed since the last QueuedPeer was built.
    static int destroyedPackets;

    ENetPeer peer{};

  private:
    ENetOutgoingCommand& make(unsigned type, enet_uint8 channel, ENetPacket* packet);
    ENetList& listFor(const ENetOutgoingCommand& command);
    static ENetPacket* makePacket();
    static void release(ENetList& list);

    std::array<ENetChannel, 2> channels{};
    std::vector<ENetList*> lists;
};
