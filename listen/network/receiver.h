#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <enet/enet.h>

#include "common/thread_check.h"

namespace vxlisten {

/// Frees a received packet.
struct PacketDeleter {
    void operator()(ENetPacket* packet) const { enet_packet_destroy(packet); }
};

/// The result of one service step.
struct ReceiverEvent {
    enum class Type { None, Connected, Packet, Disconnected };

    Type type = Type::None;
    std::uint32_t disconnectData = 0;  ///< Disconnected: the server's reason, 0 for none.
    std::unique_ptr<ENetPacket, PacketDeleter> packet;  ///< Packet: its bytes.
};

/// What the client requests from the server.
struct StreamChoice {
    bool reliable = true;
    std::uint32_t rateCode = 0;
    std::string name;         ///< At most 255 bytes are sent.
    bool multiClient = true;  ///< False: the server drops this client for the next one.
};

/// Dotted IPv4 address of a host, empty when the name is unknown. May wait for the name service.
/// Thread: any.
std::string lookUpAddress(const std::string& host);

/// One connection at a time to one server. Everything on one thread.
class Receiver {
  public:
    Receiver() = default;
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Sets up the network side. False without memory or sockets.
    [[nodiscard]] bool open();

    /// Resolves the server's name; may wait for the name service. False when the name is unknown.
    [[nodiscard]] bool resolve(const std::string& host, std::uint16_t port);

    /// Starts a connection to the resolved server; Connected or Disconnected follows. Drops an
    /// older connection without notice. False when it could not be started.
    [[nodiscard]] bool connect(const StreamChoice& choice);

    /// Requests audio, or changes the choice; at any time while connected.
    void requestData(const StreamChoice& choice);

    /// Waits at most `milliseconds` for an event.
    ReceiverEvent service(std::uint32_t milliseconds);

    /// Drops the connection without notice.
    void drop();

    /// Disconnects and waits at most `milliseconds` for the acknowledgement.
    void disconnect(std::uint32_t milliseconds);

    /// Disconnects without waiting; Disconnected follows when the server has acknowledged.
    void startDisconnect();

    /// Becomes readable when service() has something to receive. Owned by the receiver, which has
    /// been opened.
    [[nodiscard]] int descriptor() const;

    /// The resolved server's address.
    [[nodiscard]] std::string address() const;

    /// The resolved server as "address:port".
    [[nodiscard]] std::string serverAddress() const;

    /// Pings the server, for takeRoundTrip(). Does nothing when not connected, or while the answer
    /// to an earlier one may still come.
    void ping();

    /// The time from the latest ping() to its acknowledgement in microseconds, once; nothing
    /// before. The server answers between two blocks of sound, so most are longer by part of a
    /// block.
    std::optional<std::int64_t> takeRoundTrip();

    /// ENet's mean round-trip time in milliseconds, 0 when not connected.
    [[nodiscard]] std::uint32_t roundTripTime() const;

  private:
    static int onDatagram(ENetHost* host, ENetEvent* event);
    void noteAnswers(const enet_uint8* data, std::size_t length);

    ENetHost* host_ = nullptr;  ///< Owned.
    ENetPeer* peer_ = nullptr;  ///< Borrowed from the host.
    ENetAddress address_ = {};
    std::int64_t pingedAt_ = -1;   ///< Microseconds; -1 while no response is awaited.
    enet_uint16 pingMark_ = 0;     ///< The sent time that the acknowledgement repeats.
    std::int64_t roundTrip_ = -1;  ///< Microseconds; -1: none.
    ThreadCheck thread_;
};

}  // namespace vxlisten
