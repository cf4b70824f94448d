#include "web/http/web_server.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>

#include "web/http/connection.h"

namespace vxweb {

namespace {

using boost::asio::ip::tcp;

// The kernel's buffers for each connection; it doubles both.
constexpr int SEND_BUFFER = 1 << 16;
constexpr int RECEIVE_BUFFER = 1 << 14;
constexpr int BACKLOG = 1024;
/// The pause when no descriptor is left.
constexpr std::chrono::milliseconds PAUSE{100};
/// A worker gets this many connections before the next one gets any. To wake a thread for a packet
/// costs as much as writing the packet to some 20 listeners.
constexpr std::size_t FULL_WORKER = 64;

}  // namespace

WebServer::WebServer(Workers& workers)
    : workers_(workers),
      acceptor_(workers.front()->context()),
      pause_(workers.front()->context()) {}

std::string WebServer::open(const ListenAddress& address) {
    Error error;
    tcp::endpoint endpoint(boost::asio::ip::make_address(address.address), address.port);
    acceptor_.open(endpoint.protocol(), error);
    if (error == boost::asio::error::address_family_not_supported && address.address == "::") {
        endpoint = tcp::endpoint(tcp::v4(), address.port);  // A kernel without IPv6.
        acceptor_.open(endpoint.protocol(), error);
    }
    if (!error && endpoint.protocol() == tcp::v6()) {
        Error ignored;
        acceptor_.set_option(boost::asio::ip::v6_only(false), ignored);
    }
    if (!error) {
        acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
        acceptor_.set_option(boost::asio::socket_base::send_buffer_size(SEND_BUFFER), error);
        acceptor_.set_option(boost::asio::socket_base::receive_buffer_size(RECEIVE_BUFFER), error);
        acceptor_.bind(endpoint, error);
    }
    if (!error) {
        acceptor_.listen(BACKLOG, error);
    }
    return error ? "cannot listen on port " + std::to_string(address.port) + ": " + error.message()
                 : std::string();
}

void WebServer::start(const Site& site) {
    assert(workers_.front()->here());
    site_ = &site;
    accept();
}

void WebServer::close() {
    assert(workers_.front()->here());
    Error error;
    acceptor_.close(error);
    pause_.cancel();
}

std::uint16_t WebServer::port() const {
    Error error;
    return acceptor_.local_endpoint(error).port();
}

Worker& WebServer::nextWorker() const {
    auto found = std::find_if(workers_.begin(), workers_.end(),
                              [](const auto& worker) { return worker->connections < FULL_WORKER; });
    if (found == workers_.end()) {
        found = std::min_element(
            workers_.begin(), workers_.end(),
            [](const auto& a, const auto& b) { return a->connections < b->connections; });
    }
    return **found;
}

void WebServer::accept() {
    Worker& worker = nextWorker();
    acceptor_.async_accept(
        worker.context(), [this, &worker](const Error& error, tcp::socket socket) {
            if (!acceptor_.is_open()) {
                return;
            }
            if (!error) {
                ++worker.connections;
                boost::asio::post(worker.context(),
                                  [this, &worker, accepted = std::move(socket)]() mutable {
                                      startSession(std::move(accepted), *site_, worker);
                                  });
                accept();
                return;
            }
            pause_.expires_after(PAUSE);
            pause_.async_wait([this](const Error& problem) {
                if (!problem) {
                    accept();
                }
            });
        });
}

}  // namespace vxweb
