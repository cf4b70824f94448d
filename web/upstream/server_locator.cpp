#include "web/upstream/server_locator.h"

#include <cassert>
#include <chrono>
#include <utility>

#include "listen/background.h"
#include "listen/network/receiver.h"
#include "web/log.h"

namespace vxweb {

namespace {

constexpr std::chrono::milliseconds POLL_INTERVAL{20};

}  // namespace

ServerLocator::ServerLocator(boost::asio::io_context& context, vxlisten::ServerChoice choice)
    : timer_(context), choice_(std::move(choice)) {}

void ServerLocator::start() {
    assert(thread_.here());
    if (!searching_ && !stopped_) {
        search();
    }
}

void ServerLocator::stop() {
    assert(thread_.here());
    stopped_ = true;
    timer_.cancel();
    if (search_.valid() && !vxlisten::isReady(search_)) {
        vxlisten::noteAbandoned();
    }
}

void ServerLocator::look() {
    start();
}

std::string ServerLocator::server() const {
    const std::string& name = address_.empty() ? choice_.host : address_;
    return name.empty() ? name : name + ":" + std::to_string(choice_.port);
}

void ServerLocator::search() {
    searching_ = true;
    search_ = vxlisten::inBackground([choice = choice_, address = address_]() mutable {
        if (!address.empty()) {
            std::string now = vxlisten::locateAgain(choice, address);
            return Found{std::move(choice), std::move(now)};
        }
        if (choice.host.empty()) {
            vxlisten::findServer(choice);
            std::string first = choice.host;
            return Found{std::move(choice), std::move(first)};
        }
        std::string known = vxlisten::lookUpAddress(choice.host);
        return Found{std::move(choice), std::move(known)};
    });
    poll();
}

void ServerLocator::poll() {
    if (vxlisten::isReady(search_)) {
        take(search_.get());
        return;
    }
    timer_.expires_after(POLL_INTERVAL);
    timer_.async_wait([this](const boost::system::error_code& error) {
        if (!error && !stopped_) {
            poll();
        }
    });
}

void ServerLocator::take(Found found) {
    searching_ = false;
    if (!found.address.empty() && found.address != address_) {
        choice_ = std::move(found.choice);
        address_ = found.address;
        say("the server is at " + server());
    }
    if (!address_.empty()) {
        pause_.reset();
        return;
    }
    if (!unknownReported_) {
        unknownReported_ = true;
        say(choice_.host.empty() ? "no server has answered yet, still searching"
                                 : "there is no host named '" + choice_.host + "' yet");
    }
    searching_ = true;
    timer_.expires_after(std::chrono::milliseconds(pause_.next()));
    timer_.async_wait([this](const boost::system::error_code& error) {
        if (!error && !stopped_) {
            search();
        }
    });
}

}  // namespace vxweb
