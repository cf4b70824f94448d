#pragma once

#include <cstdint>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "web/http/session.h"
#include "web/options.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Accepts connections and gives them to the workers: the first few to the first worker, because a
/// packet for listeners of several workers wakes several threads.
class WebServer {
  public:
    /// `workers` are borrowed and outlive this.
    explicit WebServer(Workers& workers);

    /// Binds the port. Returns a message on failure, else an empty text.
    [[nodiscard]] std::string open(const ListenAddress& address);

    /// Starts to accept. `site` is borrowed and outlives this. Thread: the first worker's, as for
    /// close().
    void start(const Site& site);

    /// Stops accepting.
    void close();

    /// The bound port.
    [[nodiscard]] std::uint16_t port() const;

  private:
    void accept();
    [[nodiscard]] Worker& nextWorker() const;

    Workers& workers_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pause_;
    const Site* site_ = nullptr;
};

}  // namespace vxweb
