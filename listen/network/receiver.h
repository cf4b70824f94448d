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

/// What one service step brought.
struct ReceiverEvent {
    enum class Type { None, Connected, Packet, Disconnected };

    Type type = Type::None;
    std::uint32_t disconnectData = 0;  ///< Disconnected: the server's reason, 0 for none.
    std::unique_ptr<ENetPacket, PacketDeleter> packet;  ///< Packet: its bytes.
};

/// What the client asks of the server.
struct StreamChoice {
    bool reliable = true;
    std::uint32_t rateCode = 0;
    std::string name;         ///< At most 255 bytes are sent.
    bool multiClient = true;  ///< Clear: the server drops this client for the next one.
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

    /// Looks the server up; may wait for the name service. False when the name is unknown.
    [[nodiscard]] bool resolve(const std::string& host, std::uint16_t port);

    /// Starts a connection to the resolved server; Connected or Disconnected follows. Drops an
    /// older connection without a word. False when it could not be started.
    [[nodiscard]] bool connect(const StreamChoice& choice);

    /// Asks for audio; at any time while connected, to start it or to change the choice.
    void requestData(const StreamChoice& choice);

    /// Waits at most `milliseconds` for an event.
    ReceiverEvent service(std::uint32_t milliseconds);

    /// Gives the connection up without a word.
    void drop();

    /// Says goodbye and waits at most `milliseconds` for the server's answer.
    void disconnect(std::uint32_t milliseconds);

    /// Says goodbye without waiting; Disconnected follows when the server has answered.
    void startDisconnect();

    /// Becomes readable when service() has something to receive. Owned by the receiver, which has
    /// been opened.
    [[nodiscard]] int descriptor() const;

    /// The resolved server's address.
    [[nodiscard]] std::string address() const;

    /// The resolved server as "address:port".
    [[nodiscard]] std::string serverAddress() const;

    /// Asks the server for a sign of life, for takeRoundTrip(). Does nothing when not connected.
    void ping();

    /// The time from the latest ping() to its answer, in microseconds; each once, nothing before
    /// the answer has come. The server answers between two blocks of sound, so that most take a
    /// part of a block longer than the way does.
    std::optional<std::int64_t> takeRoundTrip();

    /// ENet's mean round-trip time in milliseconds, 0 when not connected.
    [[nodiscard]] std::uint32_t roundTripTime() const;

  private:
    static int onDatagram(ENetHost* host, ENetEvent* event);
    void noteAnswers(const enet_uint8* data, std::size_t length);

    ENetHost* host_ = nullptr;  ///< Owned.
    ENetPeer* peer_ = nullptr;  ///< Borrowed from the host.
    ENetAddress address_ = {};
    std::int64_t pingedAt_ = -1;   ///< Microseconds; -1 while no answer is awaited.
    enet_uint16 pingMark_ = 0;     ///< What the answer repeats.
    std::int64_t roundTrip_ = -1;  ///< Microseconds; -1: none to take.
    ThreadCheck thread_;
};

}  // namespace vxlisten
