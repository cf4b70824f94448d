#include "listen/client.h"

#include <cstdio>

#include "listen/command_line.h"
#include "listen/stop_request.h"

namespace vxlisten {

namespace {

constexpr std::int64_t MILLISECONDS = 1000;
constexpr std::int64_t SECONDS = 1000 * MILLISECONDS;
constexpr std::uint32_t SERVICE_MS = 5;
constexpr std::uint32_t GOODBYE_MS = 300;
constexpr std::int64_t CONNECT_PATIENCE = 5 * SECONDS;
constexpr std::int64_t FIGURES_INTERVAL = SECONDS;

}  // namespace

std::int64_t Client::now() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                 start_)
        .count();
}

void Client::fail(const std::string& sentence) {
    std::fprintf(stderr, "velantrix-listen: %s\n", sentence.c_str());
    end(STATUS_FAILURE);
}

void Client::tell(const std::string& sentence) const {
    if (!options_.quiet) {
        std::fprintf(stderr, "velantrix-listen: %s\n", sentence.c_str());
    }
}

bool Client::prepare() {
    if (!options_.recordPath.empty()) {
        recorder_ = std::make_unique<Recorder>();
        if (!recorder_->open(options_.recordPath)) {
            fail(recorder_->error());
            return false;
        }
        timeline_.addSink(recorder_.get());
    }
    if (!receiver_.open()) {
        fail("cannot open a network socket");
        return false;
    }
    if (!receiver_.resolve(options_.host, options_.port)) {
        fail("there is no host named '" + options_.host + "'");
        return false;
    }
    counts_.server = receiver_.serverAddress();
    counts_.hostName = options_.host;
    return startConnecting();
}

bool Client::startConnecting() {
    link_ = Link::Connecting;
    linkSince_ = now();
    if (!receiver_.connect(options_.choice)) {
        fail("cannot start a connection to " + counts_.server);
        return false;
    }
    return true;
}

int Client::run() {
    if (prepare()) {
        nextFigures_ = now() + FIGURES_INTERVAL;
        while (!ended_ && !stopRequested()) {
            step();
        }
    }
    return finish();
}

void Client::step() {
    handle(receiver_.service(SERVICE_MS));
    watchTime();
    watchConnection();
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
    link_ = Link::Connected;
    linkSince_ = now();
    if (everConnected_) {
        ++counts_.reconnects;
    } else {
        firstConnect_ = linkSince_;
    }
    everConnected_ = true;
    tracker_.restart();
    receiver_.requestData(options_.choice);
}

void Client::handlePacket(const ENetPacket& packet) {
    const auto audio = parseAudioPacket(packet.data, packet.dataLength);
    if (!audio) {
        ++counts_.damaged;
        return;
    }
    retryPause_.reset();
    lastPacket_ = now();
    ++counts_.packets;
    counts_.bytes += packet.dataLength;
    counts_.sampleRate = audio->sampleRate;
    counts_.rateCode = audio->rateCode;
    counts_.reliable = audio->reliable;
    const SequenceStep step = tracker_.observe(*audio);
    if (const PcmSink* const stopped = timeline_.take(*audio, step, lastPacket_)) {
        if (stopped->error().empty()) {
            end(STATUS_OK);
        } else {
            fail(stopped->error());
        }
    }
}

void Client::handleDisconnected(std::uint32_t data) {
    if (data == wire::DISCONNECT_REPLACED) {
        tell("another listener has taken this one's place at " + counts_.server);
        end(STATUS_OK);
    } else if (link_ == Link::Connecting) {
        loseConnection(counts_.server + " does not answer");
    } else {
        loseConnection("the connection to " + counts_.server + " has ended");
    }
}

void Client::loseConnection(const std::string& why) {
    receiver_.drop();
    if (!everConnected_) {
        fail(why);
        return;
    }
    if (link_ == Link::Connected) {
        tell(options_.once ? why : why + ", trying again");
    }
    if (options_.once) {
        end(STATUS_OK);
        return;
    }
    link_ = Link::Waiting;
    linkSince_ = now();
    waitUntil_ = linkSince_ + retryPause_.next() * MILLISECONDS;
}

void Client::watchTime() {
    const auto limit = static_cast<std::int64_t>(options_.seconds * static_cast<double>(SECONDS));
    if (options_.seconds > 0 && everConnected_ && now() - firstConnect_ >= limit) {
        end(STATUS_OK);
    }
}

void Client::watchConnection() {
    if (link_ == Link::Connecting && now() - linkSince_ >= CONNECT_PATIENCE) {
        loseConnection(counts_.server + " does not answer");
    } else if (link_ == Link::Waiting && now() >= waitUntil_) {
        startConnecting();
    }
}

Statistics Client::figures() {
    Statistics result = counts_;
    const std::int64_t time = now();
    const std::int64_t span = time - timeAtFigures_;
    result.time = static_cast<double>(time) / static_cast<double>(SECONDS);
    result.connected = link_ == Link::Connected;
    result.kilobitsPerSecond = span > 0 ? static_cast<double>(counts_.bytes - bytesAtFigures_) *
                                              8000.0 / static_cast<double>(span)
                                        : 0.0;
    result.roundTripMs = receiver_.roundTripTime();
    result.lost = tracker_.lost();
    result.late = tracker_.late();
    result.duplicates = tracker_.duplicates();
    result.damaged = counts_.damaged + timeline_.damaged();
    result.frames = timeline_.framesDecoded();
    result.filledFrames = timeline_.framesFilled();
    const LevelMeter& level = timeline_.recentLevel();
    result.peakDbfs = {level.peakDbfs(0), level.peakDbfs(1)};
    result.rmsDbfs = {level.rmsDbfs(0), level.rmsDbfs(1)};
    return result;
}

void Client::watchFigures() {
    if (now() < nextFigures_) {
        return;
    }
    nextFigures_ += FIGURES_INTERVAL;
    const Statistics statistics = figures();
    timeline_.recentLevel().clear();
    bytesAtFigures_ = counts_.bytes;
    timeAtFigures_ = now();
    if (options_.stats == StatsStyle::Json) {
        std::puts(toJson(statistics, "stats").c_str());
    } else if (!options_.quiet && options_.stats == StatsStyle::Lines) {
        std::puts(toLine(statistics).c_str());
    }
    std::fflush(stdout);
}

int Client::finish() {
    Statistics statistics = figures();
    statistics.peakDbfs = {timeline_.level().peakDbfs(0), timeline_.level().peakDbfs(1)};
    statistics.rmsDbfs = {timeline_.level().rmsDbfs(0), timeline_.level().rmsDbfs(1)};
    receiver_.disconnect(GOODBYE_MS);
    const bool alreadyFailed = status_ != STATUS_OK;
    if (recorder_ && recorder_->finish() == SinkState::Failed && !alreadyFailed) {
        fail(recorder_->error());
    }
    if (options_.stats == StatsStyle::Json) {
        std::puts(toJson(statistics, "end").c_str());
    } else if (!options_.quiet && everConnected_) {
        std::fputs(toReport(statistics).c_str(), stdout);
    }
    std::fflush(stdout);
    if (status_ == STATUS_OK && counts_.packets == 0) {
        fail("no audio has arrived");
    }
    return status_;
}

}  // namespace vxlisten
