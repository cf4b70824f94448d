#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "listen/options.h"
#include "listen/receiver.h"
#include "listen/recorder.h"
#include "listen/retry_pause.h"
#include "listen/sequence_tracker.h"
#include "listen/statistics.h"
#include "listen/timeline.h"

namespace vxlisten {

/// The whole session of one run: keeps connected to the server, hands the audio on and prints the
/// figures. Everything on the thread that calls run().
class Client {
  public:
    /// `options` is borrowed and must outlive this.
    explicit Client(const Options& options) : options_(options) {}

    /// Listens until the time is over, a stop is requested or nothing more can be done. Returns
    /// the exit status of the program, having told why when it is not 0.
    int run();

  private:
    enum class Link { Connecting, Connected, Waiting };

    [[nodiscard]] std::int64_t now() const;  ///< Microseconds since the start.
    bool prepare();
    bool startConnecting();
    void step();
    void handle(const ReceiverEvent& event);
    void handleConnected();
    void handlePacket(const ENetPacket& packet);
    void handleDisconnected(std::uint32_t data);
    void loseConnection(const std::string& why);
    void watchTime();
    void watchConnection();
    void watchFigures();
    [[nodiscard]] Statistics figures();
    void end(int status) { ended_ = true, status_ = status; }
    void fail(const std::string& sentence);
    void tell(const std::string& sentence) const;
    int finish();

    const Options& options_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    Receiver receiver_;
    SequenceTracker tracker_;
    Timeline timeline_;
    std::unique_ptr<Recorder> recorder_;
    RetryPause retryPause_;
    Link link_ = Link::Connecting;
    bool everConnected_ = false;
    bool ended_ = false;
    int status_ = 0;
    std::int64_t linkSince_ = 0;  ///< When the present state of the link began.
    std::int64_t waitUntil_ = 0;  ///< Waiting: time of the next attempt.
    std::int64_t firstConnect_ = 0;
    std::int64_t lastPacket_ = 0;
    std::int64_t nextFigures_ = 0;
    std::uint64_t bytesAtFigures_ = 0;
    std::int64_t timeAtFigures_ = 0;
    Statistics counts_;
};

}  // namespace vxlisten
