#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>

#include "common/thread_check.h"
#include "web/streams/icecast_target.h"
#include "web/streams/media_stream.h"

namespace vxweb {

/// Sends an Ogg stream to an Icecast server, and reconnects with back-off. A separate thread waits
/// for the network, so calls never block. All calls on one thread; any thread may destroy it.
class IcecastFeeder {
  public:
    /// Takes a line without a line end when the connection is made or lost. Called on the feeder's
    /// thread; must not block or call the feeder.
    using Report = std::function<void(const std::string& line)>;

    /// Connects at the first sound. `title` is the name that Icecast shows.
    IcecastFeeder(const IcecastTarget& target, const std::string& title, Report report);

    /// Returns within half a second; nothing is reported afterwards.
    ~IcecastFeeder();
    IcecastFeeder(const IcecastFeeder&) = delete;
    IcecastFeeder& operator=(const IcecastFeeder&) = delete;

    /// Begins a stream: each connection gets `header` first. Drops what waits.
    void start(const std::string& header);

    /// Takes a chunk of the stream. When the server does not read, the oldest is dropped.
    void push(const Chunk& chunk);

  private:
    struct State;
    ThreadCheck caller_;
    std::shared_ptr<State> state_;  ///< Shared with the thread, which may outlive this.
    std::future<void> thread_;      ///< Its end.
};

}  // namespace vxweb
