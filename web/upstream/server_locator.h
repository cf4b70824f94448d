#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "common/thread_check.h"
#include "listen/find_server.h"
#include "listen/retry_pause.h"

namespace vxweb {

/// Knows the server's address, and searches for it in the background. Everything on the thread of
/// its context.
class ServerLocator {
  public:
    ServerLocator(boost::asio::io_context& context, vxlisten::ServerChoice choice);

    /// Unless a server was given, searches with back-off until one answers.
    void start();

    /// Stops, for the end of the program. Abandons background work.
    void stop();

    /// Searches once for a new address of the server, unless a search is running.
    void look();

    /// Dotted IPv4 address; empty before it is known.
    [[nodiscard]] const std::string& address() const { return address_; }
    [[nodiscard]] std::uint16_t port() const { return choice_.port; }

    /// The last server found or given as "address:port"; empty before the first.
    [[nodiscard]] std::string server() const;

  private:
    struct Found {
        vxlisten::ServerChoice choice;
        std::string address;
    };

    void search();
    void poll();
    void take(Found found);

    ThreadCheck thread_;
    boost::asio::steady_timer timer_;
    vxlisten::ServerChoice choice_;
    vxlisten::RetryPause pause_;
    std::future<Found> search_;
    std::string address_;
    bool searching_ = false;  ///< A search runs, or the pause before the next one.
    bool unknownReported_ = false;
    bool stopped_ = false;
};

}  // namespace vxweb
