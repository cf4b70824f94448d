#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include "common/thread_check.h"

namespace vxweb {

using Error = boost::system::error_code;
/// The end of something that took time; `count` is how many bytes went.
using Done = std::function<void(const Error& error, std::size_t count)>;

/// One accepted connection, with TLS or without. Everything on one thread. At most one reading and
/// one writing at a time; buffers stay where they are until then.
class Connection {
  public:
    virtual ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Prepares the connection; nothing else before it is done.
    virtual void handshake(Done done) = 0;
    /// Reads what has come, at least a byte.
    virtual void read(boost::asio::mutable_buffer room, Done done) = 0;
    /// Writes at once what goes and returns how much that is. `would_block`: use write().
    virtual std::size_t tryWrite(boost::asio::const_buffer bytes, Error& error) = 0;
    /// Writes some, when there is room.
    virtual void write(boost::asio::const_buffer bytes, Done done) = 0;
    /// Tells the other side that nothing more comes.
    virtual void endWriting(Done done) = 0;

    /// Writes everything.
    void writeAll(std::shared_ptr<const std::string> bytes, Done done);

    /// Waits until nothing can be written any more.
    void waitForEnd(Done done);

    /// Ends at once; what is under way ends with an error.
    void close();

    /// How many of the bytes written the other side has not acknowledged.
    [[nodiscard]] std::int64_t unacknowledged() const;

    /// True when the other side has left without a word: what was sent has not been acknowledged,
    /// and nothing has for half a minute.
    [[nodiscard]] bool vanished() const;

    [[nodiscard]] auto executor() { return socket_.get_executor(); }

  protected:
    explicit Connection(boost::asio::ip::tcp::socket socket) : socket_(std::move(socket)) {}
    mutable boost::asio::ip::tcp::socket socket_;  ///< Asio's way to ask for its handle changes it.

  private:
    void writeRest(std::shared_ptr<const std::string> bytes, std::size_t from, Done done);

    ThreadCheck thread_;
};

/// A connection over the socket; with TLS unless `tls`, which is borrowed, is null.
std::shared_ptr<Connection> makeConnection(boost::asio::ip::tcp::socket socket,
                                           boost::asio::ssl::context* tls);

}  // namespace vxweb
