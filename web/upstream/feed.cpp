#include "web/upstream/feed.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

#include "listen/clock.h"
#include "listen/network/receiver.h"
#include "web/upstream/live_packets.h"

namespace vxweb {

namespace {

/// Interval of the messages to waiting listeners, who would otherwise think that the connection is
/// lost.
constexpr std::int64_t WAITING_INTERVAL = 10 * vxlisten::SECOND;

}  // namespace

Feed::Feed(boost::asio::io_context& context, ServerLocator& locator, std::uint32_t rateCode,
           const std::string& title, FeedEvents& events)
    : rateCode_(rateCode), title_(title), events_(events) {
    vxlisten::StreamChoice choice;
    choice.rateCode = rateCode;
    choice.name = title;
    upstream_ = std::make_shared<Upstream>(context, locator, choice, *this);
    upstream_->open();
}

Feed::~Feed() {
    upstream_->abandon();
}

void Feed::addListener(ChannelId channel) {
    assert(thread_.here());
    const Channel& it = CHANNELS[channel];
    if (outlets_[channel].listeners++ == 0 && !it.live()) {
        outlets_[channel].media = makeMediaStream(mediaFormat(it.form), it.rate, title_);
    }
    ++listeners_;
}

void Feed::removeListener(ChannelId channel) {
    assert(thread_.here());
    if (--outlets_[channel].listeners == 0 && outlets_[channel].media) {
        outlets_[channel] = {};
    }
    --listeners_;
}

bool Feed::carries(ChannelId channel) const {
    return CHANNELS[channel].rateCode == rateCode_;
}

void Feed::introduce(ChannelId channel, PacketPtr intro) {
    outlets_[channel].intro = std::move(intro);
    events_.publish(channel, outlets_[channel].intro);
}

void Feed::publishMedia(ChannelId channel, const Chunk& chunk, std::int64_t now) {
    const std::string header = outlets_[channel].media->header();
    if (!outlets_[channel].intro && !header.empty()) {
        introduce(channel, makeChunk(header, false, now));
    }
    events_.publish(channel, makeChunk(*chunk, true, now));
}

void Feed::packetCame(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                      std::int64_t now, std::int64_t roundTrip) {
    away_ = false;
    events_.soundCame(packet.sampleRate);
    for (ChannelId channel = 0; channel < CHANNELS.size(); ++channel) {
        if (carries(channel) && CHANNELS[channel].live()) {
            publishLive(channel, packet, step.start, now, roundTrip);
        } else if (outlets_[channel].media) {
            outlets_[channel].media->take(
                packet, step, now, [=](const Chunk& chunk) { publishMedia(channel, chunk, now); });
        }
    }
}

void Feed::publishLive(ChannelId channel, const vxlisten::AudioPacket& packet, bool start,
                       std::int64_t now, std::int64_t roundTrip) {
    if (start) {
        introduce(channel, makeFormat(CHANNELS[channel].form == Form::LiveOpus, packet.sampleRate,
                                      title_, now));
    }
    if (outlets_[channel].listeners > 0 && packet.encoding != vxlisten::Encoding::Fallback) {
        events_.publish(channel, CHANNELS[channel].arrivals ? makeTimedSound(packet, now, roundTrip)
                                                            : makeSound(packet, now));
    }
}

void Feed::serverWentAway() {
    away_ = true;
    sendWaiting(vxlisten::steadyNow());
}

void Feed::sendWaiting(std::int64_t now) {
    waitingSentAt_ = now;
    for (ChannelId channel = 0; channel < CHANNELS.size(); ++channel) {
        if (carries(channel) && CHANNELS[channel].live()) {
            introduce(channel, makeWaiting(now));
        }
    }
}

void Feed::timePassed(std::int64_t now) {
    if (away_ && now - waitingSentAt_ >= WAITING_INTERVAL) {
        sendWaiting(now);
    }
    for (ChannelId channel = 0; channel < CHANNELS.size(); ++channel) {
        if (outlets_[channel].media) {
            outlets_[channel].media->pass(
                now, [=](const Chunk& chunk) { publishMedia(channel, chunk, now); });
        }
    }
}

std::size_t Feed::packetsWanted() const {
    std::size_t wanted = std::numeric_limits<std::size_t>::max();
    for (ChannelId channel = 0; channel < CHANNELS.size(); ++channel) {
        const Outlet& outlet = outlets_[channel];
        if (outlet.listeners > 0) {
            wanted = std::min(wanted, outlet.media ? outlet.media->packetsToChunk() : 1);
        }
    }
    return wanted;
}

bool Feed::roundTripsWanted() const {
    for (ChannelId channel = 0; channel < CHANNELS.size(); ++channel) {
        if (CHANNELS[channel].arrivals && outlets_[channel].listeners > 0) {
            return true;
        }
    }
    return false;
}

void Feed::upstreamClosed() {
    events_.feedClosed(*this);
}

}  // namespace vxweb
