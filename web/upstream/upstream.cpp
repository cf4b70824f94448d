#include "web/upstream/upstream.h"

#include <chrono>
#include <utility>

#include "listen/clock.h"
#include "stream/wire_format.h"
#include "web/channel.h"
#include "web/log.h"

namespace vxweb {

namespace {

using vxlisten::MILLISECOND;
using vxlisten::SECOND;
using vxlisten::steadyNow;

constexpr std::int64_t TICK = 20 * MILLISECOND;
/// When nobody waits for the next packets, they are taken together.
constexpr std::int64_t REST = 40 * MILLISECOND;
constexpr std::size_t PACKETS_A_REST = 5;  ///< Of Opus, and one to spare.
/// Packets bring the ticks; this finds that none arrive.
constexpr std::int64_t IDLE_CHECK = 100 * MILLISECOND;
constexpr std::int64_t PING_INTERVAL = 101 * MILLISECOND;
constexpr std::int64_t LOCATE_TIMEOUT = 1 * SECOND;
constexpr std::int64_t CONNECT_TIMEOUT = 5 * SECOND;
/// A server sends all the time. When a connection delivers nothing, only a new one helps.
constexpr std::int64_t SILENCE_TIMEOUT = 3 * SECOND;
constexpr std::int64_t DISCONNECT_TIMEOUT = 400 * MILLISECOND;
/// Another client was given the place: do not take it back at once.
constexpr std::int64_t REPLACED_PAUSE = 5 * SECOND;

}  // namespace

Upstream::Upstream(boost::asio::io_context& context, ServerLocator& locator,
                   vxlisten::StreamChoice choice, UpstreamEvents& events)
    : timer_(context),
      pings_(context),
      socket_(context),
      locator_(locator),
      choice_(std::move(choice)),
      events_(events) {}

Upstream::~Upstream() {
    if (socket_.is_open()) {
        socket_.release();
    }
}

void Upstream::open() {
    enter(Link::Waiting);
    waitForTime(TICK);
    watch();
}

void Upstream::close() {
    receiver_.startDisconnect();
    enter(Link::Closing);
    waitForTime(TICK);
}

void Upstream::abandon() {
    enter(Link::Ended);
    timer_.cancel();
    pings_.cancel();
    if (socket_.is_open()) {
        socket_.release();  // What waits for it would keep this alive.
    }
}

void Upstream::enter(Link link) {
    link_ = link;
    linkSince_ = steadyNow();
}

void Upstream::tell(const std::string& what) const {
    say(feedName(choice_.rateCode) + ": " + what);
}

void Upstream::waitForData() {
    if (!socket_.is_open()) {
        socket_.assign(receiver_.descriptor());
    }
    socket_.async_wait(boost::asio::posix::descriptor_base::wait_read,
                       [self = shared_from_this()](const boost::system::error_code& error) {
                           if (!error && self->link_ != Link::Ended) {
                               self->heard_ = true;
                               self->passTime();
                               self->waitOn();
                           }
                       });
}

void Upstream::waitOn() {
    if (link_ == Link::Ended) {
        return;
    }
    resting_ = mayRest();
    if (resting_) {
        if (socket_.is_open()) {
            socket_.release();  // Or each packet would wake the thread all the same.
        }
        waitForTime(REST);
    } else {
        waitForData();
    }
}

/// True when nobody waits for the packets of a rest.
bool Upstream::mayRest() const {
    return link_ == Link::Connected && events_.packetsWanted() > PACKETS_A_REST;
}

void Upstream::waitForTime(std::int64_t time) {
    timer_.expires_after(std::chrono::microseconds(time));
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (!error && self->link_ != Link::Ended) {
            self->passTime();
            if (self->resting_) {
                self->waitOn();
            }
            if (!self->resting_ && self->link_ != Link::Ended) {
                self->waitForTime(std::exchange(self->heard_, false) ? IDLE_CHECK : TICK);
            }
        }
    });
}

/// On a timer of its own: a ping right after a packet would always wait for the server's next one.
void Upstream::pingLater() {
    pings_.expires_after(std::chrono::microseconds(PING_INTERVAL));
    pings_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (!error && self->link_ != Link::Ended) {
            self->pinging_ = self->events_.roundTripsWanted();
            if (self->pinging_) {
                self->receiver_.ping();
                self->pingLater();
            }
        }
    });
}

void Upstream::passTime() {
    service();
    const std::int64_t now = steadyNow();
    if (now - tickedAt_ < TICK) {
        return;
    }
    tickedAt_ = now;
    watch();
    if (link_ != Link::Ended) {
        events_.timePassed(now);
    }
}

void Upstream::service() {
    while (link_ != Link::Ended && open_) {
        const vxlisten::ReceiverEvent event = receiver_.service(0);
        if (event.type == vxlisten::ReceiverEvent::Type::None) {
            return;
        }
        handle(event);
    }
}

void Upstream::handle(const vxlisten::ReceiverEvent& event) {
    if (event.type == vxlisten::ReceiverEvent::Type::Disconnected) {
        handleDisconnected(event.disconnectData);
    } else if (link_ == Link::Closing) {
        return;
    } else if (event.type == vxlisten::ReceiverEvent::Type::Packet) {
        handlePacket(*event.packet);
    } else {
        enter(Link::Connected);
        tell("connected to " + receiver_.serverAddress());
        lastSound_ = linkSince_;
        tracker_.restart();
        receiver_.requestData(choice_);
    }
}

void Upstream::handlePacket(const ENetPacket& packet) {
    const auto audio = vxlisten::parseAudioPacket(packet.data, packet.dataLength);
    if (!audio || audio->rateCode != choice_.rateCode) {
        return;
    }
    lastSound_ = steadyNow();
    pause_.reset();
    away_ = unanswered_ = false;
    if (!pinging_ && events_.roundTripsWanted()) {
        pinging_ = true;
        pingLater();
    }
    events_.packetCame(*audio, tracker_.observe(*audio), lastSound_,
                       receiver_.takeRoundTrip().value_or(0));
}

void Upstream::handleDisconnected(std::uint32_t data) {
    if (link_ == Link::Closing) {
        linkSince_ = 0;
    } else if (data == wire::DISCONNECT_REPLACED) {
        lose("replaced by another client at " + receiver_.serverAddress());
        waitUntil_ = steadyNow() + REPLACED_PAUSE;
    } else {
        lose(link_ == Link::Connected
                 ? "the connection to " + receiver_.serverAddress() + " has ended"
                 : noAnswer());
    }
}

/// Told once.
std::string Upstream::noAnswer() {
    return std::exchange(unanswered_, true) ? std::string()
                                            : receiver_.serverAddress() + " does not answer";
}

/// `why` is printed unless it is empty.
void Upstream::lose(const std::string& why) {
    if (!why.empty()) {
        tell(why + ", trying again");
    }
    receiver_.drop();
    enter(Link::Waiting);
    waitUntil_ = linkSince_ + pause_.next() * MILLISECOND;
    locator_.look();
    if (!away_) {
        away_ = true;
        events_.serverWentAway();
    }
}

/// False without a socket: all descriptors may be in use.
bool Upstream::openSocket() {
    if (!open_ && receiver_.open()) {
        open_ = true;
        waitForData();
    }
    return open_;
}

void Upstream::connect() {
    enter(Link::Connecting);
    if (!openSocket() || !receiver_.resolve(locator_.address(), locator_.port()) ||
        !receiver_.connect(choice_)) {
        lose({});
    }
}

void Upstream::watch() {
    const std::int64_t now = steadyNow();
    const bool found = !locator_.address().empty();
    if (link_ == Link::Closing && now - linkSince_ >= DISCONNECT_TIMEOUT) {
        abandon();
        events_.upstreamClosed();
    } else if (link_ == Link::Waiting && !away_ && !found && now - linkSince_ >= LOCATE_TIMEOUT) {
        away_ = true;
        events_.serverWentAway();
    } else if ((link_ == Link::Waiting && now >= waitUntil_ && found) ||
               (link_ == Link::Connecting && found && receiver_.address() != locator_.address())) {
        connect();
    } else if (link_ == Link::Connecting && now - linkSince_ >= CONNECT_TIMEOUT) {
        lose(noAnswer());
    } else if (link_ == Link::Connected && now - lastSound_ >= SILENCE_TIMEOUT) {
        receiver_.startDisconnect();
        lose("no audio received from " + receiver_.serverAddress() + " for a while");
    }
}

}  // namespace vxweb
