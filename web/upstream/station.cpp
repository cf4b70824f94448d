#include "web/upstream/station.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <utility>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <nlohmann/json.hpp>

#include "listen/background.h"
#include "web/log.h"

namespace vxweb {

namespace {

/// How long a feed without listeners stays open.
constexpr std::chrono::seconds LINGER{5};
constexpr int ICECAST_RATE = 128;

ChannelId icecastChannel() {
    return findChannel(Form::Ogg, ICECAST_RATE).value();
}

}  // namespace

Station::Station(const Options& options, Workers& workers)
    : title_(options.title),
      maxListeners_(options.maxListeners),
      icecast_(options.icecast),
      workers_(workers),
      context_(workers.front()->context()),
      locator_(context_, options.server),
      counts_(workers.size()) {
    for (std::uint32_t rateCode = 0; rateCode < wire::RATE_CODE_COUNT; ++rateCode) {
        places_.push_back({nullptr, boost::asio::steady_timer(context_)});
    }
}

void Station::start() {
    assert(workers_.front()->here());
    locator_.start();
    for (const IcecastTarget& target : icecast_) {
        feeders_.push_back(std::make_unique<IcecastFeeder>(target, title_, say));
        use(CHANNELS[icecastChannel()].rateCode).feed->addListener(icecastChannel());
        ++listeners_;
    }
}

void Station::close() {
    assert(workers_.front()->here());
    locator_.stop();
    maxListeners_ = 0;
    // Each destruction may take half a second.
    for (auto& feeder : feeders_) {
        --listeners_;
        feederEnds_.push_back(vxlisten::inBackground(
            [last = std::shared_ptr<IcecastFeeder>(std::move(feeder))]() mutable {
                last.reset();
            }));
    }
    feeders_.clear();
    for (Place& place : places_) {
        place.linger.cancel();
        closeNow(place);
    }
}

bool Station::closed() const {
    assert(workers_.front()->here());
    return closing_.empty() && listeners_ == 0 &&
           std::all_of(feederEnds_.begin(), feederEnds_.end(), vxlisten::isReady<void>);
}

bool Station::reserve() {
    if (listeners_.fetch_add(1) < maxListeners_) {
        return true;
    }
    release();
    return false;
}

void Station::join(ChannelId channel, Worker& worker, std::shared_ptr<Subscriber> subscriber) {
    assert(worker.here());
    boost::asio::dispatch(context_, [this, channel, &worker, it = std::move(subscriber)] {
        add(channel, worker, it);
    });
}

void Station::leave(ChannelId channel, Worker& worker, Subscriber& subscriber) {
    assert(worker.here());
    subscriber.left = true;
    worker.detach(channel, &subscriber);
    boost::asio::dispatch(context_, [this, channel, &worker] { remove(channel, worker); });
}

/// The place of a stream that gets a listener.
Station::Place& Station::use(std::uint32_t rateCode) {
    Place& place = places_[rateCode];
    if (!place.feed) {
        place.feed = std::make_unique<Feed>(context_, locator_, rateCode, title_, *this);
    }
    place.linger.cancel();
    return place;
}

void Station::add(ChannelId channel, Worker& worker,
                  const std::shared_ptr<Subscriber>& subscriber) {
    Place& place = use(CHANNELS[channel].rateCode);
    place.feed->addListener(channel);
    ++counts_[worker.index()][channel];
    boost::asio::dispatch(worker.context(),
                          [&worker, channel, subscriber, intro = place.feed->intro(channel)] {
                              worker.attach(channel, subscriber, intro);
                          });
    say("listener to " + channelName(channel) + " connected, " + std::to_string(listeners_.load()) +
        " in total");
}

void Station::remove(ChannelId channel, Worker& worker) {
    release();
    --counts_[worker.index()][channel];
    Place& place = places_[CHANNELS[channel].rateCode];
    if (place.feed) {
        place.feed->removeListener(channel);
        if (place.feed->listeners() == 0) {
            closeLater(place);
        }
    }
    say("listener to " + channelName(channel) + " disconnected, " +
        std::to_string(listeners_.load()) + " in total");
}

void Station::closeLater(Place& place) {
    place.linger.expires_after(LINGER);
    place.linger.async_wait([this, &place](const boost::system::error_code& error) {
        if (!error && place.feed && place.feed->listeners() == 0) {
            closeNow(place);
        }
    });
}

void Station::closeNow(Place& place) {
    if (place.feed) {
        place.feed->close();
        closing_.push_back(std::move(place.feed));
    }
}

void Station::feedClosed(const Feed& feed) {
    boost::asio::post(context_, [this, &feed] {
        closing_.erase(std::remove_if(closing_.begin(), closing_.end(),
                                      [&feed](const auto& other) { return other.get() == &feed; }),
                       closing_.end());
    });
}

void Station::feedIcecast(const Packet& packet) {
    const std::string body(packet.view(false));
    for (const auto& feeder : feeders_) {
        if (packet.sound) {
            feeder->push(std::make_shared<const std::string>(body));
        } else {
            feeder->start(body);
        }
    }
}

void Station::publish(ChannelId channel, const PacketPtr& packet) {
    assert(workers_.front()->here());
    if (!feeders_.empty() && channel == icecastChannel()) {
        feedIcecast(*packet);
    }
    // The own worker last, so that the others start earlier.
    for (std::size_t i = workers_.size(); i-- > 0;) {
        if (counts_[i][channel] > 0) {
            boost::asio::dispatch(
                workers_[i]->context(),
                [&worker = *workers_[i], channel, packet] { worker.deliver(channel, packet); });
        }
    }
}

void Station::askStatus(Worker& worker, std::function<void(const std::string&)> answer) {
    assert(worker.here());
    boost::asio::dispatch(context_, [this, &worker, answer = std::move(answer)]() mutable {
        boost::asio::dispatch(worker.context(),
                              [answer = std::move(answer), text = status()] { answer(text); });
    });
}

std::string Station::status() const {
    nlohmann::ordered_json feeds = nlohmann::ordered_json::object();
    bool connected = false;
    for (std::uint32_t rateCode = 0; rateCode < places_.size(); ++rateCode) {
        if (const auto& feed = places_[rateCode].feed) {
            feeds[feedName(rateCode)] = feed->listeners();
            connected = connected || (feed->listeners() > 0 && feed->connected());
        }
    }
    const std::string server = locator_.server();
    nlohmann::ordered_json result = {
        {"program", "velantrix-web"},
        {"version", VELANTRIX_WEB_VERSION},
        {"title", title_},
        {"server", server.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(server)},
        {"connected", connected},
        {"sampleRate",
         sampleRate_ == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(sampleRate_)},
        {"listeners", listeners_.load()},
        {"feeds", feeds}};
    return result.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace vxweb
