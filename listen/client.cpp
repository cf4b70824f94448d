#include "listen/client.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include "listen/background.h"
#include "listen/clock.h"
#include "listen/command_line.h"
#include "listen/network/audio_packet.h"
#include "listen/sinks/pcm_sink.h"
#include "listen/stop_request.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

constexpr std::uint32_t SERVICE_MS = 5;
constexpr std::uint32_t DISCONNECT_TIMEOUT_MS = 300;
constexpr std::int64_t CONNECT_TIMEOUT = 5 * SECOND;
/// A server sends all the time. When a connection delivers nothing, only a new one helps.
constexpr std::int64_t SILENCE_TIMEOUT = 3 * SECOND;
constexpr double NOTED_SILENCE = 0.9;  ///< Seconds after which it is reported.
constexpr std::int64_t WATCH_INTERVAL = 100 * MILLISECOND;
// The minimum round trip is needed: ping often at first, and not in step with the server's blocks.
constexpr std::int64_t FIRST_PINGS = 60 * SECOND;
constexpr std::int64_t FIRST_PING_INTERVAL = 51 * MILLISECOND;
constexpr std::int64_t PING_INTERVAL = 251 * MILLISECOND;

double toSeconds(std::int64_t microseconds) {
    return static_cast<double>(microseconds) / static_cast<double>(SECOND);
}

/// Bits per millisecond, which are kilobits per second.
double bitRate(std::uint64_t bytes, std::int64_t microseconds) {
    return microseconds > 0
               ? static_cast<double>(bytes) * 8.0 / (static_cast<double>(microseconds) / 1000.0)
               : 0.0;
}

}  // namespace

int Client::run() {
    start_ = steadyNow();
    bitRateSince_ = start_;
    const bool prepared = prepare();
    nextFigures_ = steadyNow() + reporter_.interval();
    if (prepared) {
        while (!ended_ && !stopRequested()) {
            step();
        }
    }
    return finish();
}

bool Client::prepare() {
    if (!outputs_.open(options_)) {
        fail(outputs_.error());
        return false;
    }
    if (!outputs_.warning().empty()) {
        reporter_.announce(outputs_.warning());
    }
    if (!receiver_.open()) {
        fail("cannot open a network socket");
        return false;
    }
    if (!receiver_.resolve(options_.server.host, options_.server.port)) {
        fail("there is no host named '" + options_.server.host + "'");
        return false;
    }
    counts_.server = receiver_.serverAddress();
    counts_.hostName = options_.server.host;
    counts_.rateCode = options_.choice.rateCode;  // Until the first packet.
    counts_.reliable = options_.choice.reliable;
    return startConnecting();
}

bool Client::startConnecting() {
    enter(Link::Connecting);
    if (!receiver_.connect(options_.choice)) {
        fail("cannot start a connection to " + counts_.server);
        return false;
    }
    return true;
}

void Client::enter(Link link) {
    link_ = link;
    linkSince_ = steadyNow();
}

void Client::end(int status) {
    ended_ = true;
    status_ = status;
}

void Client::endWithoutAudio() {
    noAudioNeeded_ = true;
    end(STATUS_OK);
}

void Client::takeState(SinkState state) {
    if (state == SinkState::Closed) {
        endWithoutAudio();
    } else if (state == SinkState::Failed) {
        fail(outputs_.error());
    }
}

void Client::fail(const std::string& sentence) {
    reporter_.complain(sentence);
    end(STATUS_FAILURE);
}

void Client::step() {
    handle(receiver_.service(SERVICE_MS));
    watchTime();
    watchRoundTrip();
    watchConnection();
    watchOutputs();
    watchFigures();
}

void Client::handle(const ReceiverEvent& event) {
    switch (event.type) {
        case ReceiverEvent::Type::Connected:
            handleConnected();
            break;
        case ReceiverEvent::Type::Packet:
            handlePacket(*event.packet);
            break;
        case ReceiverEvent::Type::Disconnected:
            handleDisconnected(event.disconnectData);
            break;
        case ReceiverEvent::Type::None:
            break;
    }
}

void Client::handleConnected() {
    enter(Link::Connected);
    if (everConnected_) {
        ++counts_.reconnects;
        reporter_.announce("connected to " + counts_.server + " again");
    } else {
        firstConnect_ = linkSince_;
    }
    everConnected_ = true;
    lastAudio_ = linkSince_;
    tracker_.restart();
    receiver_.requestData(options_.choice);
}

void Client::handlePacket(const ENetPacket& packet) {
    const auto audio = parseAudioPacket(packet.data, packet.dataLength);
    if (!audio) {
        ++counts_.damaged;
        return;
    }
    const std::int64_t now = steadyNow();
    const double seconds = toSeconds(now - lastAudio_);
    if (seconds >= NOTED_SILENCE) {
        char text[64];
        std::snprintf(text, sizeof text, "no audio received for %.1f s", seconds);
        reporter_.announce(text);
    }
    retryPause_.reset();
    ++counts_.packets;
    counts_.bytes += packet.dataLength;
    counts_.sampleRate = audio->sampleRate;
    counts_.rateCode = audio->rateCode;
    counts_.reliable = audio->reliable;
    takeState(outputs_.take(*audio, tracker_.observe(*audio), now));
    lastAudio_ = steadyNow();  // After the outputs, which may block.
}

void Client::handleDisconnected(std::uint32_t data) {
    if (data == wire::DISCONNECT_REPLACED) {
        reporter_.announce("replaced by another client at " + counts_.server);
        endWithoutAudio();
    } else if (link_ == Link::Connecting) {
        loseConnection(counts_.server + " does not answer");
    } else {
        loseConnection("the connection to " + counts_.server + " has ended");
    }
}

void Client::loseConnection(const std::string& why) {
    const bool wasConnected = link_ == Link::Connected;
    receiver_.drop();
    if (!everConnected_) {
        fail(why);
        return;
    }
    if (wasConnected) {
        reporter_.announce(options_.once ? why : why + ", trying again");
    }
    if (options_.once) {
        end(STATUS_OK);
        return;
    }
    enter(Link::Waiting);
    waitUntil_ = linkSince_ + retryPause_.next() * MILLISECOND;
    // One that hangs is kept: another would hang, too.
    if (!lookUp_.valid() || isReady(lookUp_)) {
        lookUp_ = inBackground([server = options_.server, address = receiver_.address()] {
            return locateAgain(server, address);
        });
    }
}

/// True when the look-up has just returned another address, which is used from now on.
bool Client::followServer() {
    if (!lookUp_.valid() || !isReady(lookUp_)) {
        return false;
    }
    const std::string address = lookUp_.get();
    if (address.empty() || address == receiver_.address() ||
        !receiver_.resolve(address, options_.server.port)) {
        return false;
    }
    counts_.server = receiver_.serverAddress();
    reporter_.announce("the server is now at " + counts_.server);
    if (options_.server.found) {
        counts_.hostName = address;
    }
    return true;
}

void Client::dropSilentConnection() {
    receiver_.disconnect(DISCONNECT_TIMEOUT_MS);
    loseConnection("no audio received from " + counts_.server + " for a while");
}

void Client::watchTime() {
    if (options_.seconds > 0 && everConnected_ &&
        toSeconds(steadyNow() - firstConnect_) >= options_.seconds) {
        end(STATUS_OK);
    }
}

void Client::watchRoundTrip() {
    const std::int64_t now = steadyNow();
    if (const auto roundTrip = receiver_.takeRoundTrip()) {
        outputs_.noteRoundTrip(static_cast<double>(*roundTrip));
    }
    if (link_ == Link::Connected && options_.play && now >= nextPing_) {
        receiver_.ping();
        nextPing_ = now + (now - linkSince_ < FIRST_PINGS ? FIRST_PING_INTERVAL : PING_INTERVAL);
    }
}

void Client::watchConnection() {
    if (link_ == Link::Connecting && steadyNow() - linkSince_ >= CONNECT_TIMEOUT) {
        loseConnection(counts_.server + " does not answer");
    } else if (link_ == Link::Waiting && steadyNow() >= waitUntil_) {
        followServer();
        startConnecting();  // To the old address when the look-up takes long.
    } else if (link_ == Link::Connecting && followServer()) {
        startConnecting();
    } else if (link_ == Link::Connected && steadyNow() - lastAudio_ >= SILENCE_TIMEOUT) {
        dropSilentConnection();
    }
}

void Client::watchOutputs() {
    const std::int64_t now = steadyNow();
    if (now < nextWatch_) {
        return;
    }
    nextWatch_ = now + WATCH_INTERVAL;
    std::string news;
    takeState(outputs_.watch(now, news));
    if (!ended_ && link_ != Link::Connected) {
        takeState(outputs_.passSilence(now));
    }
    if (!news.empty()) {
        reporter_.announce(news);
    }
}

void Client::measureBitRate() {
    const std::int64_t span = steadyNow() - bitRateSince_;
    if (span >= SECOND - MILLISECOND) {
        counts_.kilobitsPerSecond = bitRate(counts_.bytes - bitRateBytes_, span);
        bitRateSince_ += span;
        bitRateBytes_ = counts_.bytes;
    }
}

void Client::watchFigures() {
    if (ended_ || steadyNow() < nextFigures_) {
        return;
    }
    // After a stall, skip the lines that were due.
    nextFigures_ = std::max(nextFigures_ + reporter_.interval(), steadyNow());
    measureBitRate();
    reporter_.show(figures());
    outputs_.clearLevels();
}

Statistics Client::figures() {
    Statistics result = counts_;
    result.time = toSeconds(steadyNow() - start_);
    result.connected = link_ == Link::Connected;
    result.roundTripMs = receiver_.roundTripTime();
    result.lost = tracker_.lost();
    outputs_.describe(result);
    return result;
}

Statistics Client::wholeFigures() {
    Statistics result = figures();
    outputs_.describeWholeLevel(result);
    result.kilobitsPerSecond =
        everConnected_ ? bitRate(counts_.bytes, steadyNow() - firstConnect_) : 0.0;
    return result;
}

int Client::finish() {
    if (status_ == STATUS_OK && !noAudioNeeded_ && link_ != Link::Connected) {
        takeState(outputs_.passSilence(steadyNow()));
    }
    if (lookUp_.valid() && !isReady(lookUp_)) {
        noteAbandoned();
    }
    const Statistics statistics = wholeFigures();
    receiver_.disconnect(DISCONNECT_TIMEOUT_MS);
    if (outputs_.finish() == SinkState::Failed && status_ == STATUS_OK) {
        fail(outputs_.error());
    }
    if (everConnected_) {
        reporter_.report(statistics);
    }
    if (status_ == STATUS_OK && counts_.packets == 0 && !noAudioNeeded_) {
        fail("no audio has arrived");
    }
    return status_;
}

}  // namespace vxlisten
