#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "common/thread_check.h"
#include "web/channel.h"
#include "web/packet.h"

namespace vxweb {

/// A listener of a channel.
class Subscriber {
  public:
    virtual ~Subscriber() = default;
    /// The next packet. Thread: its worker's.
    virtual void take(const PacketPtr& packet) = 0;
    /// The program ends. Thread: its worker's.
    virtual void shutDown() = 0;
    /// The end took too long: closes the connection. Thread: its worker's.
    virtual void cut() = 0;

    bool left = false;  ///< It gets nothing more. Set by the station.
};

/// A thread's io_context and its subscribers, which share nothing with other threads. Thread: the
/// one that runs the context.
class Worker {
  public:
    explicit Worker(std::size_t index) : index_(index) {}

    [[nodiscard]] boost::asio::io_context& context() { return context_; }
    [[nodiscard]] std::size_t index() const { return index_; }
    /// True on the thread that runs the context, which the first call is to come from.
    [[nodiscard]] bool here() const { return thread_.here(); }

    /// The subscriber gets the channel from now on, `intro` first unless it is null.
    void attach(ChannelId channel, const std::shared_ptr<Subscriber>& subscriber,
                const PacketPtr& intro);
    /// Not within take().
    void detach(ChannelId channel, const Subscriber* subscriber);
    void deliver(ChannelId channel, const PacketPtr& packet);
    /// Tells all subscribers, also later ones, that the program ends.
    void shutDown();
    /// Closes the connections of all remaining subscribers.
    void cut();

    /// Number of connections that it serves. Thread: any.
    std::atomic<std::size_t> connections{0};

  private:
    boost::asio::io_context context_{1};
    const std::size_t index_;
    ThreadCheck thread_;
    bool ending_ = false;
    std::array<std::vector<std::shared_ptr<Subscriber>>, CHANNELS.size()> subscribers_;
};

using Workers = std::vector<std::unique_ptr<Worker>>;

}  // namespace vxweb
