#include "web/http/session.h"

#include <array>
#include <cassert>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "web/channel.h"
#include "web/http/connection.h"
#include "web/http/live_session.h"
#include "web/http/request_reader.h"
#include "web/http/response.h"
#include "web/http/routes.h"
#include "web/http/stream_session.h"
#include "web/local_addresses.h"
#include "web/page/assets.h"
#include "web/page/qr_picture.h"

namespace vxweb {

namespace {

namespace http = boost::beast::http;

constexpr std::chrono::seconds STEP_TIMEOUT{10};

std::string_view toView(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

/// The response to a request that is not for a WebSocket, or is wrong.
std::optional<Response> refuseUpgrade(const Request& request) {
    constexpr std::size_t KEY_LENGTH = 24;  // 16 bytes in base64.
    const bool upgrade = boost::beast::websocket::is_upgrade(request);
    if (upgrade && request[http::field::sec_websocket_key].size() != KEY_LENGTH) {
        return sentence(400, "The Sec-WebSocket-Key is missing or not 16 bytes long.");
    }
    if (upgrade && request[http::field::sec_websocket_version] == "13") {
        return std::nullopt;
    }
    Response response = sentence(426, "This address is for WebSockets of version 13.");
    response.fields = "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n";
    return response;
}

class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(std::shared_ptr<Connection> connection, const Site& site, Worker& worker)
        : connection_(std::move(connection)),
          timer_(worker.context()),
          site_(site),
          worker_(worker) {}

    void start() {
        limitTime([](Session& self) { self.connection_->close(); });
        connection_->handshake([self = shared_from_this()](const Error& error, std::size_t) {
            if (!error) {
                self->expectRequest();
            }
        });
    }

  private:
    /// Calls `late` after the time-out, unless this is called again before.
    template <class Late>
    void limitTime(Late late) {
        timer_.expires_after(STEP_TIMEOUT);
        timer_.async_wait([weak = weak_from_this(), late](const Error& error) {
            const auto self = weak.lock();
            if (!error && self) {
                late(*self);
            }
        });
    }

    void expectRequest() {
        reader_ = std::make_unique<RequestReader>();
        limitTime([](Session& self) { self.giveUpWaiting(); });
        takeBytes();
    }

    void giveUpWaiting() {
        if (served_ && bytes_.empty()) {
            connection_->close();  // It sent a request before and may have no more.
        } else {
            refuse(sentence(408, "The request took longer than 10 seconds."));
        }
    }

    /// After the last response, everything received is ignored.
    void read() {
        reading_ = true;
        connection_->read(boost::asio::buffer(room_),
                          [self = shared_from_this()](const Error& error, std::size_t count) {
                              self->reading_ = false;
                              if (error) {
                                  self->timer_.cancel();
                                  return;
                              }
                              if (self->ended_) {
                                  self->read();
                                  return;
                              }
                              self->bytes_.append(self->room_.data(), count);
                              self->takeBytes();
                          });
    }

    void takeBytes() {
        bytes_.erase(0, reader_->read(bytes_));
        switch (reader_->state()) {
            case RequestReader::State::Reading:
                read();
                break;
            case RequestReader::State::Complete:
                served_ = true;
                answer();
                break;
            case RequestReader::State::Bad:
                refuse(sentence(400, "This is not an HTTP request."));
                break;
            case RequestReader::State::TooLong:
                refuse(sentence(431, "The header is longer than 8 KiB."));
                break;
        }
    }

    /// Answers an invalid request and closes.
    void refuse(const Response& response) {
        ended_ = true;
        respond(response, RequestTraits());
    }

    void answer();
    void answerKnown(const Route& route);
    void answerStatus();
    void startLiveSession(const Route& route);
    void startStreamSession(const Route& route);
    [[nodiscard]] Response playlist() const;
    [[nodiscard]] std::string pageAddress() const;
    [[nodiscard]] RequestTraits traits() const;
    void respond(const Response& response, const RequestTraits& traits);
    void end();

    std::shared_ptr<Connection> connection_;
    boost::asio::steady_timer timer_;
    const Site& site_;
    Worker& worker_;
    std::unique_ptr<RequestReader> reader_;
    std::array<char, 2048> room_{};
    std::string bytes_;  ///< Received and not yet taken.
    bool reading_ = false;
    bool served_ = false;  ///< A request was received on this connection.
    bool ended_ = false;   ///< The connection ends with the present response.
};

RequestTraits Session::traits() const {
    const Request& request = reader_->request();
    return {request.method() == http::verb::head, request.keep_alive() && !reader_->hasBody(),
            request.version()};
}

void Session::answer() {
    const Request& request = reader_->request();
    const Route route = findRoute(toView(request.target()));
    const bool stream = route.kind == Route::Kind::Stream;
    if (const auto refusal = site_.access.refuse(request, stream)) {
        respond(*refusal, traits());
    } else if (route.kind == Route::Kind::Missing) {
        respond(sentence(404, "There is no such address."), traits());
    } else if (request.method() != http::verb::get && request.method() != http::verb::head) {
        Response response = sentence(405, "Only GET and HEAD are supported.");
        response.fields = "Allow: GET, HEAD\r\n";
        respond(response, traits());
    } else if (route.kind == Route::Kind::BadQuery) {
        respond(sentence(400, route.problem), traits());
    } else {
        answerKnown(route);
    }
}

void Session::answerKnown(const Route& route) {
    Response response;
    switch (route.kind) {
        case Route::Kind::Status:
            answerStatus();
            return;
        case Route::Kind::Live:
            startLiveSession(route);
            return;
        case Route::Kind::Stream:
            startStreamSession(route);
            return;
        case Route::Kind::Playlist:
            response = playlist();
            break;
        case Route::Kind::Qr:
            response.contentType = "image/svg+xml";
            response.body = qrSvg(pageAddress());
            break;
        case Route::Kind::Asset:
            if (const Asset* const asset = findAsset(route.path)) {
                response.contentType = asset->contentType;
                response.body = asset->body;
                response.stored = true;
            }
            break;
        default:
            response = sentence(404, "There is no such address.");
            break;
    }
    respond(response, traits());
}

void Session::answerStatus() {
    site_.station.askStatus(worker_, [self = shared_from_this()](const std::string& text) {
        Response response;
        response.contentType = "application/json";
        response.body = text;
        self->respond(response, self->traits());
    });
}

void Session::startLiveSession(const Route& route) {
    const Request& request = reader_->request();
    if (const auto refusal = refuseUpgrade(request)) {
        respond(*refusal, traits());
    } else if (!bytes_.empty()) {
        respond(sentence(400, "A WebSocket client must wait for the response before sending."),
                traits());
    } else if (!site_.station.reserve()) {
        respond(sentence(503, "The maximum number of listeners is reached."), traits());
    } else {
        timer_.cancel();
        startLive(connection_, site_.station, worker_, route.channel, request);
    }
}

void Session::startStreamSession(const Route& route) {
    const StreamFormat format = mediaFormat(CHANNELS[route.channel].form);
    Response response;
    response.contentType = contentType(format);
    response.fields = "icy-name: " + site_.title + "\r\n";
    response.endless = true;
    RequestTraits how = traits();
    how.keepAlive = how.keepAlive && how.head;
    if (how.head) {
        respond(response, how);
        return;
    }
    if (!site_.station.reserve()) {
        respond(sentence(503, "The maximum number of listeners is reached."), traits());
        return;
    }
    limitTime([](Session& self) { self.connection_->close(); });
    connection_->writeAll(
        std::make_shared<std::string>(write(response, how)),
        [self = shared_from_this(), how, channel = route.channel](const Error& error, std::size_t) {
            self->timer_.cancel();
            if (error) {
                self->site_.station.release();
            } else {
                startStream(self->connection_, self->site_.station, self->worker_, channel,
                            how.version >= 11);
            }
        });
}

/// The page's address, from the request's Host.
std::string Session::pageAddress() const {
    const std::string_view host = toView(reader_->request()[http::field::host]);
    const std::string name = hostOf(host);
    const bool here = name == "localhost" || name == "::1" || name.rfind("127.", 0) == 0;
    if (host.empty() || here) {
        return webAddresses(site_.listen, site_.port, site_.tls != nullptr).front();
    }
    return (site_.tls ? "https://" : "http://") + std::string(host) + "/";
}

Response Session::playlist() const {
    const std::string_view host = toView(reader_->request()[http::field::host]);
    Response response;
    response.contentType = "audio/x-mpegurl";
    response.body = "#EXTM3U\n#EXTINF:-1," + site_.title + "\n" +
                    (site_.tls ? "https://" : "http://") + std::string(host) + "/stream.mp3\n";
    return response;
}

void Session::respond(const Response& response, const RequestTraits& traits) {
    ended_ = ended_ || !traits.keepAlive;
    limitTime([](Session& self) { self.connection_->close(); });
    connection_->writeAll(std::make_shared<std::string>(write(response, traits)),
                          [self = shared_from_this()](const Error& error, std::size_t) {
                              if (error) {
                                  self->timer_.cancel();
                              } else if (self->ended_) {
                                  self->end();
                              } else {
                                  self->expectRequest();
                              }
                          });
}

/// Waits until the client has closed, or it might lose the response.
void Session::end() {
    connection_->endWriting([self = shared_from_this()](const Error&, std::size_t) {
        if (!self->reading_) {
            self->read();
        }
    });
}

/// The connection, which is counted until it is destroyed.
std::shared_ptr<Connection> counted(std::shared_ptr<Connection> connection, Worker& worker) {
    Connection* const raw = connection.get();
    return {raw, [connection = std::move(connection), &worker](Connection*) mutable {
                connection.reset();
                --worker.connections;
            }};
}

}  // namespace

void startSession(boost::asio::ip::tcp::socket socket, const Site& site, Worker& worker) {
    assert(worker.here());
    auto connection = counted(makeConnection(std::move(socket), site.tls.get()), worker);
    std::make_shared<Session>(std::move(connection), site, worker)->start();
}

}  // namespace vxweb
