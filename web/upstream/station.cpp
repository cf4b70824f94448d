#include "web/upstream/station.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <nlohmann/json.hpp>

#include "web/log.h"

namespace vxweb {

namespace {

/// A feed that nobody hears any more stays this long for whoever comes back.
constexpr std::chrono::seconds LINGER{5};

}  // namespace

Station::Station(const Options& options, Workers& workers)
    : title_(options.title),
      maxListeners_(options.maxListeners),
      workers_(workers),
      context_(workers.front()->context()),
      locator_(context_, options.server),
      counts_(workers.size()) {
    for (std::uint32_t rateCode = 0; rateCode < wire::RATE_CODE_COUNT; ++rateCode) {
        places_.push_back({nullptr, boost::asio::steady_timer(context_)});
    }
}

void Station::start() {
    locator_.start();
}

void Station::close() {
    locator_.stop();
    for (Place& place : places_) {
        place.linger.cancel();
        closeNow(place);
    }
}

bool Station::reserve() {
    if (listeners_.fetch_add(1) < maxListeners_) {
        return true;
    }
    release();
    return false;
}

void Station::join(ChannelId channel, Worker& worker, std::shared_ptr<Subscriber> subscriber) {
    boost::asio::dispatch(context_, [this, channel, &worker, it = std::move(subscriber)] {
        add(channel, worker, it);
    });
}

void Station::leave(ChannelId channel, Worker& worker, Subscriber& subscriber) {
    subscriber.left = true;
    worker.detach(channel, &subscriber);
    boost::asio::dispatch(context_, [this, channel, &worker] { remove(channel, worker); });
}

void Station::add(ChannelId channel, Worker& worker,
                  const std::shared_ptr<Subscriber>& subscriber) {
    const std::uint32_t rateCode = CHANNELS[channel].rateCode;
    Place& place = places_[rateCode];
    if (!place.feed) {
        place.feed = std::make_unique<Feed>(context_, locator_, rateCode, title_, *this);
    }
    place.linger.cancel();
    place.feed->addListener(channel);
    ++counts_[worker.index()][channel];
    boost::asio::dispatch(worker.context(),
                          [&worker, channel, subscriber, intro = place.feed->intro(channel)] {
                              worker.attach(channel, subscriber, intro);
                          });
    say("a listener to " + channelName(channel) + " has come, " +
        std::to_string(listeners_.load()) + " in all");
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
    say("a listener to " + channelName(channel) + " has left, " +
        std::to_string(listeners_.load()) + " in all");
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
        sampleRate_ = std::max(sampleRate_, place.feed->sampleRate());
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

void Station::publish(ChannelId channel, const PacketPtr& packet) {
    // The own worker last: the others work meanwhile.
    for (std::size_t i = workers_.size(); i-- > 0;) {
        if (counts_[i][channel] > 0) {
            boost::asio::dispatch(
                workers_[i]->context(),
                [&worker = *workers_[i], channel, packet] { worker.deliver(channel, packet); });
        }
    }
}

void Station::askStatus(Worker& worker, std::function<void(const std::string&)> answer) {
    boost::asio::dispatch(context_, [this, &worker, answer = std::move(answer)]() mutable {
        boost::asio::dispatch(worker.context(),
                              [answer = std::move(answer), text = status()] { answer(text); });
    });
}

std::string Station::status() const {
    nlohmann::ordered_json feeds = nlohmann::ordered_json::object();
    bool connected = false;
    int sampleRate = sampleRate_;
    for (std::uint32_t rateCode = 0; rateCode < places_.size(); ++rateCode) {
        if (const auto& feed = places_[rateCode].feed) {
            feeds[feedName(rateCode)] = feed->listeners();
            connected = connected || feed->connected();
            sampleRate = std::max(sampleRate, feed->sampleRate());
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
         sampleRate == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(sampleRate)},
        {"listeners", listeners_.load()},
        {"feeds", feeds}};
    return result.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace vxweb
