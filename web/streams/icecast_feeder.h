#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>

#include "common/thread_check.h"
#include "web/streams/icecast_target.h"
#include "web/streams/media_stream.h"

namespace vxweb {

/// Sends an Ogg stream to an Icecast server, and connects again with growing pauses for as long as
/// it lives. A thread of its own waits for the network, so that its caller never does. All calls
/// on one thread; any thread may destroy it.
class IcecastFeeder {
  public:
    /// Takes one line without a line end when the connection comes or goes. Called on the feeder's
    /// thread; must not block or call the feeder.
    using Report = std::function<void(const std::string& line)>;

    /// Connects when the first sound comes. `title` is the name that Icecast shows.
    IcecastFeeder(const IcecastTarget& target, const std::string& title, Report report);

    /// Returns within half a second; nothing is reported afterwards.
    ~IcecastFeeder();
    IcecastFeeder(const IcecastFeeder&) = delete;
    IcecastFeeder& operator=(const IcecastFeeder&) = delete;

    /// Begins a stream: each connection gets `header` first. Drops what waits.
    void start(const std::string& header);

    /// Takes what start()'s stream emits. Where the server does not read, the oldest is dropped.
    void push(const Chunk& chunk);

  private:
    struct State;
    ThreadCheck caller_;
    std::shared_ptr<State> state_;  ///< The thread's, too, which may outlive this.
    std::future<void> thread_;      ///< Its end.
};

}  // namespace vxweb
