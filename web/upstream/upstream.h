#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "listen/network/audio_packet.h"
#include "listen/network/receiver.h"
#include "listen/network/sequence_tracker.h"
#include "listen/retry_pause.h"
#include "web/upstream/server_locator.h"

namespace vxweb {

/// The events of one connection to the server, in order.
class UpstreamEvents {
  public:
    virtual ~UpstreamEvents() = default;
    /// A packet of the requested stream. Borrowed. `roundTrip` is one to the server since the last
    /// call, in microseconds; 0: none.
    virtual void packetCame(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                            std::int64_t now, std::int64_t roundTrip) = 0;
    /// The server is away. Called again only after packets have arrived.
    virtual void serverWentAway() = 0;
    /// Called every 20 to 40 ms; when no more packets come, for the first time within 100 ms.
    virtual void timePassed(std::int64_t now) = 0;
    /// How many more packets it takes until something is to be done at once; until then they may
    /// wait for some 40 ms.
    [[nodiscard]] virtual std::size_t packetsWanted() const = 0;
    /// Whether packetCame() should bring round trips.
    [[nodiscard]] virtual bool roundTripsWanted() const = 0;
    /// The connection has ended after close(); the last call.
    virtual void upstreamClosed() = 0;
};

/// One connection to the server, for one of its streams; always reconnects. Everything on the
/// thread of its context.
class Upstream : public std::enable_shared_from_this<Upstream> {
  public:
    /// `locator` and `events` are borrowed and outlive this.
    Upstream(boost::asio::io_context& context, ServerLocator& locator,
             vxlisten::StreamChoice choice, UpstreamEvents& events);
    ~Upstream();
    Upstream(const Upstream&) = delete;
    Upstream& operator=(const Upstream&) = delete;

    /// Starts to connect. Once.
    void open();

    /// Disconnects from the server; upstreamClosed() follows within half a second.
    void close();

    /// Ends without notice to the server or the events, which may then be destroyed.
    void abandon();

    [[nodiscard]] bool connected() const { return link_ == Link::Connected; }

  private:
    enum class Link { Waiting, Connecting, Connected, Closing, Ended };

    void waitForData();
    void waitOn();
    [[nodiscard]] bool mayRest() const;
    void waitForTime(std::int64_t time);
    void pingLater();
    void passTime();
    void service();
    void handle(const vxlisten::ReceiverEvent& event);
    void handlePacket(const ENetPacket& packet);
    void handleDisconnected(std::uint32_t data);
    void watch();
    [[nodiscard]] bool openSocket();
    void connect();
    void lose(const std::string& why);
    void enter(Link link);
    void tell(const std::string& what) const;
    [[nodiscard]] std::string noAnswer();

    boost::asio::steady_timer timer_;
    boost::asio::steady_timer pings_;
    boost::asio::posix::stream_descriptor
        socket_;  ///< Borrowed from the receiver; not while resting.
    ServerLocator& locator_;
    const vxlisten::StreamChoice choice_;
    UpstreamEvents& events_;
    vxlisten::Receiver receiver_;
    vxlisten::SequenceTracker tracker_;
    vxlisten::RetryPause pause_;
    Link link_ = Link::Waiting;
    bool away_ = false;        ///< serverWentAway() was the last call about it.
    bool unanswered_ = false;  ///< noAnswer() has said so since the last packet.
    bool open_ = false;        ///< The receiver has its socket.
    bool heard_ = false;       ///< The socket has woken us since the timer did.
    bool resting_ = false;     ///< Only the timer wakes us.
    bool pinging_ = false;     ///< The pings' timer runs.
    // Times in microseconds.
    std::int64_t linkSince_ = 0;
    std::int64_t waitUntil_ = 0;
    std::int64_t lastSound_ = 0;
    std::int64_t tickedAt_ = 0;
};

}  // namespace vxweb
