#pragma once

#include <cstdint>
#include <future>
#include <string>

#include <enet/enet.h>

#include "listen/console/reporter.h"
#include "listen/console/statistics.h"
#include "listen/find_server.h"
#include "listen/network/receiver.h"
#include "listen/network/sequence_tracker.h"
#include "listen/options.h"
#include "listen/outputs.h"
#include "listen/retry_pause.h"
#include "listen/sinks/pcm_sink.h"

namespace vxlisten {

/// The session: stays connected to the server, passes the audio to the outputs and prints the
/// figures. Everything on the thread that calls run().
class Client {
  public:
    /// `options` is borrowed and must outlive this; its host is chosen.
    explicit Client(const Options& options) : options_(options), reporter_(options) {}

    /// Listens until the time is over, a stop is requested or an error ends it. Returns the exit
    /// status of the program; when it is not 0 a message has been printed.
    int run();

  private:
    enum class Link { Connecting, Connected, Waiting };

    bool prepare();
    bool startConnecting();
    void enter(Link link);
    void step();
    void handle(const ReceiverEvent& event);
    void handleConnected();
    void handlePacket(const ENetPacket& packet);
    void handleDisconnected(std::uint32_t data);
    void loseConnection(const std::string& why);
    void watchOutputs();
    void dropSilentConnection();
    bool followServer();
    void endWithoutAudio();
    void takeState(SinkState state);
    void watchTime();
    void watchRoundTrip();
    void watchConnection();
    void watchFigures();
    void measureBitRate();
    [[nodiscard]] Statistics figures();
    [[nodiscard]] Statistics wholeFigures();
    void end(int status);
    void fail(const std::string& sentence);
    int finish();

    const Options& options_;
    Reporter reporter_;
    Receiver receiver_;
    SequenceTracker tracker_;
    Outputs outputs_;
    RetryPause retryPause_;
    Statistics counts_;                ///< Counted here; figures() adds the rest.
    std::future<std::string> lookUp_;  ///< Look-up of the server's address.
    Link link_ = Link::Connecting;
    bool everConnected_ = false;
    bool ended_ = false;
    int status_ = 0;
    bool noAudioNeeded_ = false;  ///< The end needs no audio to count as success.
    // Times in microseconds.
    std::int64_t start_ = 0;
    std::int64_t linkSince_ = 0;  ///< When the present state of the link began.
    std::int64_t waitUntil_ = 0;  ///< Waiting: time of the next attempt.
    std::int64_t firstConnect_ = 0;
    std::int64_t lastAudio_ = 0;  ///< Connected: time of the latest audio, or of the connection.
    std::int64_t nextFigures_ = 0;
    std::int64_t nextWatch_ = 0;
    std::int64_t nextPing_ = 0;
    std::int64_t bitRateSince_ = 0;   ///< Start of the span that the bit rate is measured over,
    std::uint64_t bitRateBytes_ = 0;  ///< and the bytes received before it.
};

}  // namespace vxlisten
