#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include "common/thread_check.h"

namespace vxweb {

using Error = boost::system::error_code;
/// Called at the end of an operation that read or wrote `count` bytes.
using Done = std::function<void(const Error& error, std::size_t count)>;

/// One accepted connection, with TLS or without. Everything on one thread. At most one read and one
/// write at a time; their buffers must stay valid until the end.
class Connection {
  public:
    virtual ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Prepares the connection; must be done before anything else.
    virtual void handshake(Done done) = 0;
    /// Reads at least one byte.
    virtual void read(boost::asio::mutable_buffer room, Done done) = 0;
    /// Writes without waiting and returns the number of bytes. `would_block`: use write().
    virtual std::size_t tryWrite(boost::asio::const_buffer bytes, Error& error) = 0;
    /// Writes some bytes, when there is room.
    virtual void write(boost::asio::const_buffer bytes, Done done) = 0;
    /// Closes our direction.
    virtual void endWriting(Done done) = 0;

    /// Writes everything.
    void writeAll(std::shared_ptr<const std::string> bytes, Done done);

    /// Waits until the connection can no longer be written to.
    void waitForEnd(Done done);

    /// Closes at once; pending operations end with an error.
    void close();

    /// How many written bytes the client has not acknowledged.
    [[nodiscard]] std::int64_t unacknowledged() const;

    /// True when the client has vanished: it has acknowledged nothing for half a minute, though it
    /// should have.
    [[nodiscard]] bool vanished() const;

    [[nodiscard]] auto executor() { return socket_.get_executor(); }

  protected:
    explicit Connection(boost::asio::ip::tcp::socket socket) : socket_(std::move(socket)) {}
    mutable boost::asio::ip::tcp::socket socket_;  ///< Mutable: native_handle() is not const.

  private:
    void writeRest(std::shared_ptr<const std::string> bytes, std::size_t from, Done done);

    ThreadCheck thread_;
};

/// A connection over the socket; with TLS unless `tls` (borrowed) is null.
std::shared_ptr<Connection> makeConnection(boost::asio::ip::tcp::socket socket,
                                           boost::asio::ssl::context* tls);

}  // namespace vxweb
