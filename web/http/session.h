#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include "web/http/access.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Data that all sessions share. Constant while the program serves.
struct Site {
    Access access;
    std::string title;
    std::string listen;                              ///< The address and
    std::uint16_t port;                              ///< the port that it serves.
    std::unique_ptr<boost::asio::ssl::context> tls;  ///< Null without TLS.
    Station& station;
};

/// Serves an accepted connection, which the worker has counted, until it ends. `site` and `worker`
/// are borrowed. Thread: the worker's.
void startSession(boost::asio::ip::tcp::socket socket, const Site& site, Worker& worker);

}  // namespace vxweb
