#include "web/http/connection.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>

namespace vxweb {

namespace {

using boost::asio::const_buffer;
using boost::asio::mutable_buffer;
using boost::asio::ip::tcp;

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
        : Connection(std::move(socket)), stream_(socket_, tls) {}

    void handshake(Done done) override {
        stream_.async_handshake(boost::asio::ssl::stream_base::server,
                                [done = std::move(done)](const Error& error) { done(error, 0); });
    }
    void read(mutable_buffer room, Done done) override {
        stream_.async_read_some(room, std::move(done));
    }
    std::size_t tryWrite(const_buffer /*bytes*/, Error& error) override {
        error = boost::asio::error::would_block;
        return 0;
    }
    void write(const_buffer bytes, Done done) override {
        stream_.async_write_some(bytes, std::move(done));
    }
    void endWriting(Done done) override {
        stream_.async_shutdown([done = std::move(done)](const Error& error) { done(error, 0); });
    }

  private:
    boost::asio::ssl::stream<tcp::socket&> stream_;
};

}  // namespace

void Connection::writeAll(std::shared_ptr<const std::string> bytes, Done done) {
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

void Connection::close() {
    Error error;
    socket_.close(error);
}

std::int64_t Connection::unacknowledged() const {
    int bytes = 0;
    return ioctl(socket_.native_handle(), SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

std::shared_ptr<Connection> makeConnection(tcp::socket socket, boost::asio::ssl::context* tls) {
    Error error;
    socket.non_blocking(true, error);
    socket.set_option(tcp::no_delay(true), error);
    if (tls != nullptr) {
        return std::make_shared<TlsConnection>(std::move(socket), *tls);
    }
    return std::make_shared<PlainConnection>(std::move(socket));
}

}  // namespace vxweb
