#include "web/http/connection.h"

#include <cassert>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>

namespace vxweb {

namespace {

using boost::asio::const_buffer;
using boost::asio::mutable_buffer;
using boost::asio::ip::tcp;

/// A client that vanishes while nothing is sent is noticed after half a minute.
constexpr std::pair<int, int> KEEP_ALIVE[] = {
    {TCP_KEEPIDLE, 15}, {TCP_KEEPINTVL, 5}, {TCP_KEEPCNT, 3}};  // Seconds, seconds, probes.
constexpr std::uint32_t VANISHED_MILLISECONDS = 30000;
/// TLS keeps 68 KiB for a connection; the kernel, which doubles this, so much less.
constexpr int TLS_SEND_BUFFER = 1 << 15;

class PlainConnection : public Connection {
  public:
    explicit PlainConnection(tcp::socket socket) : Connection(std::move(socket)) {}

    void handshake(Done done) override {
        boost::asio::post(socket_.get_executor(), [done = std::move(done)] { done({}, 0); });
    }
    void read(mutable_buffer room, Done done) override {
        socket_.async_read_some(room, std::move(done));
    }
    std::size_t tryWrite(const_buffer bytes, Error& error) override {
        return socket_.write_some(bytes, error);
    }
    void write(const_buffer bytes, Done done) override {
        socket_.async_write_some(bytes, std::move(done));
    }
    void endWriting(Done done) override {
        Error error;
        socket_.shutdown(tcp::socket::shutdown_send, error);
        handshake(std::move(done));
    }
};

class TlsConnection : public Connection {
  public:
    TlsConnection(tcp::socket socket, boost::asio::ssl::context& tls)
        : Connection(std::move(socket)), tls_(tls) {}

    /// Gets memory for TLS only when the client says something.
    void handshake(Done done) override {
        socket_.async_wait(tcp::socket::wait_read,
                           [this, done = std::move(done)](const Error& error) mutable {
                               if (error) {
                                   done(error, 0);
                               } else {
                                   shakeHands(std::move(done));
                               }
                           });
    }
    void read(mutable_buffer room, Done done) override {
        stream_->async_read_some(room, std::move(done));
    }
    std::size_t tryWrite(const_buffer /*bytes*/, Error& error) override {
        error = boost::asio::error::would_block;
        return 0;
    }
    void write(const_buffer bytes, Done done) override {
        stream_->async_write_some(bytes, std::move(done));
    }
    void endWriting(Done done) override {
        stream_->async_shutdown([done = std::move(done)](const Error& error) { done(error, 0); });
    }

  private:
    void shakeHands(Done done) {
        stream_.emplace(socket_, tls_);
        stream_->async_handshake(boost::asio::ssl::stream_base::server,
                                 [done = std::move(done)](const Error& error) { done(error, 0); });
    }

    boost::asio::ssl::context& tls_;
    std::optional<boost::asio::ssl::stream<tcp::socket&>> stream_;
};

}  // namespace

void Connection::writeAll(std::shared_ptr<const std::string> bytes, Done done) {
    assert(thread_.here());
    writeRest(std::move(bytes), 0, std::move(done));
}

void Connection::writeRest(std::shared_ptr<const std::string> bytes, std::size_t from, Done done) {
    const const_buffer rest = boost::asio::buffer(*bytes) + from;
    write(rest, [this, bytes, from, done = std::move(done)](const Error& error,
                                                            std::size_t count) mutable {
        if (error || from + count >= bytes->size()) {
            done(error, from + count);
        } else {
            writeRest(std::move(bytes), from + count, std::move(done));
        }
    });
}

void Connection::waitForEnd(Done done) {
    assert(thread_.here());
    socket_.async_wait(tcp::socket::wait_error,
                       [done = std::move(done)](const Error& error) { done(error, 0); });
}

void Connection::close() {
    assert(thread_.here());
    Error error;
    socket_.close(error);
}

std::int64_t Connection::unacknowledged() const {
    int bytes = 0;
    return ioctl(socket_.native_handle(), SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

bool Connection::vanished() const {
    tcp_info info = {};
    socklen_t length = sizeof info;
    // A client that does not read acknowledges window probes, which are rare.
    return getsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
           (info.tcpi_unacked > 0 || info.tcpi_probes > 1) &&
           info.tcpi_last_ack_recv > VANISHED_MILLISECONDS;
}

std::shared_ptr<Connection> makeConnection(tcp::socket socket, boost::asio::ssl::context* tls) {
    Error error;
    socket.non_blocking(true, error);
    socket.set_option(tcp::no_delay(true), error);
    socket.set_option(boost::asio::socket_base::keep_alive(true), error);
    for (const auto& [option, value] : KEEP_ALIVE) {
        setsockopt(socket.native_handle(), IPPROTO_TCP, option, &value, sizeof value);
    }
    if (tls != nullptr) {
        socket.set_option(boost::asio::socket_base::send_buffer_size(TLS_SEND_BUFFER), error);
        return std::make_shared<TlsConnection>(std::move(socket), *tls);
    }
    return std::make_shared<PlainConnection>(std::move(socket));
}

}  // namespace vxweb
