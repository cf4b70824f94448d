#include "web/http/live_session.h"

#include <array>
#include <string>
#include <utility>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "web/http/listener.h"

namespace vxweb {

namespace {

namespace websocket = boost::beast::websocket;

constexpr std::size_t MAX_MESSAGE = 65536;
constexpr std::chrono::seconds HANDSHAKE_TIMEOUT{10};

/// Carries the WebSocket's own messages: it sends them between the packets of sound, which do not
/// pass through it.
class Gate {
  public:
    using executor_type = boost::asio::ip::tcp::socket::executor_type;

    Gate(std::shared_ptr<Connection> connection, std::shared_ptr<Listener> listener)
        : connection_(std::move(connection)), listener_(std::move(listener)) {}

    executor_type get_executor() { return connection_->executor(); }
    void close() { connection_->close(); }

    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        const auto first = boost::asio::buffer_sequence_begin(buffers);
        auto kept = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
        connection_->read(*first,
                          [kept](const Error& error, std::size_t count) { (*kept)(error, count); });
    }

    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        std::string bytes = boost::beast::buffers_to_string(buffers);
        auto kept = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
        Done done = [kept, size = bytes.size()](const Error& error, std::size_t) {
            (*kept)(error, error ? 0 : size);
        };
        if (bytes.front() == CLOSE) {
            listener_->sendLast(std::move(bytes), std::move(done));
        } else {
            listener_->sendOwn(std::move(bytes), std::move(done));
        }
    }

    template <class Handler>
    void finish(Handler&& handler) {
        auto kept = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
        connection_->endWriting([kept](const Error& error, std::size_t) { (*kept)(error); });
    }

  private:
    static constexpr char CLOSE = '\x88';  ///< First byte of that frame.

    std::shared_ptr<Connection> connection_;
    std::shared_ptr<Listener> listener_;
};

template <class Handler>
void async_teardown(boost::beast::role_type /*role*/, Gate& gate, Handler&& handler) {
    gate.finish(std::forward<Handler>(handler));
}

void beast_close_socket(Gate& gate) {
    gate.close();
}

class LiveSession : public Subscriber, public std::enable_shared_from_this<LiveSession> {
  public:
    LiveSession(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
                ChannelId channel)
        : station_(station),
          worker_(worker),
          channel_(channel),
          listener_(std::make_shared<Listener>(connection, Listener::Slow::LosesSound, true)),
          socket_(std::move(connection), listener_) {
        socket_.read_message_max(MAX_MESSAGE);
        websocket::stream_base::timeout times{};
        times.handshake_timeout = HANDSHAKE_TIMEOUT;
        times.idle_timeout = websocket::stream_base::none();
        times.keep_alive_pings = false;
        socket_.set_option(times);
    }

    void start(const Request& request) {
        socket_.async_accept(request, [self = shared_from_this()](const Error& error) {
            if (!error) {
                self->station_.join(self->channel_, self->worker_, self);
                self->read();
            } else {
                self->station_.release();
            }
        });
    }

    void take(const PacketPtr& packet) override { listener_->send(packet); }

    void shutDown() override {
        socket_.async_close(websocket::close_code::going_away,
                            [self = shared_from_this()](const Error&) {});
    }

    void cut() override { listener_->close(); }

  private:
    void read() {
        socket_.async_read_some(boost::asio::buffer(ignored_),
                                [self = shared_from_this()](const Error& error, std::size_t) {
                                    if (!error) {
                                        self->read();
                                        return;
                                    }
                                    self->listener_->close();  // Or a stalled write would go on.
                                    self->station_.leave(self->channel_, self->worker_, *self);
                                });
    }

    Station& station_;
    Worker& worker_;
    const ChannelId channel_;
    std::shared_ptr<Listener> listener_;
    websocket::stream<Gate, false> socket_;
    std::array<char, 512> ignored_{};
};

}  // namespace

void startLive(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
               ChannelId channel, const Request& request) {
    std::make_shared<LiveSession>(connection, station, worker, channel)->start(request);
}

}  // namespace vxweb
