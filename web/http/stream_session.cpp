#include "web/http/stream_session.h"

#include <array>
#include <cstddef>
#include <utility>

#include <boost/asio/error.hpp>

#include "web/http/listener.h"
#include "web/packet.h"

namespace vxweb {

namespace {

class StreamSession : public Subscriber, public std::enable_shared_from_this<StreamSession> {
  public:
    StreamSession(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
                  ChannelId channel, bool chunked)
        : station_(station),
          worker_(worker),
          channel_(channel),
          chunked_(chunked),
          connection_(std::move(connection)),
          listener_(
              std::make_shared<Listener>(connection_, Listener::Slow::LosesConnection, chunked)) {}

    void start() {
        station_.join(channel_, worker_, shared_from_this());
        read();
    }

    void take(const PacketPtr& packet) override { listener_->send(packet); }

    void shutDown() override {
        ending_ = true;
        listener_->sendLast(chunked_ ? "0\r\n\r\n" : "", [connection = connection_](
                                                             const Error& error, std::size_t) {
            if (!error) {
                connection->endWriting([connection](const Error&, std::size_t) {});
            }
        });
    }

    void cut() override { connection_->close(); }

  private:
    void read() {
        connection_->read(boost::asio::buffer(ignored_),
                          [self = shared_from_this()](const Error& error, std::size_t) {
                              if (!error) {
                                  self->read();
                              } else if (error == boost::asio::error::eof && !self->ending_) {
                                  self->waitForEnd();
                              } else {
                                  self->leave();
                              }
                          });
    }

    /// Some players close their direction after the request and keep listening. The next write
    /// notices a client that is gone.
    void waitForEnd() {
        connection_->waitForEnd(
            [self = shared_from_this()](const Error&, std::size_t) { self->leave(); });
    }

    void leave() {
        connection_->close();
        station_.leave(channel_, worker_, *this);
    }

    Station& station_;
    Worker& worker_;
    const ChannelId channel_;
    const bool chunked_;
    bool ending_ = false;
    std::shared_ptr<Connection> connection_;
    std::shared_ptr<Listener> listener_;
    std::array<char, 512> ignored_{};
};

}  // namespace

void startStream(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
                 ChannelId channel, bool chunked) {
    std::make_shared<StreamSession>(std::move(connection), station, worker, channel, chunked)
        ->start();
}

}  // namespace vxweb
