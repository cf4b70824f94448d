#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "web/channel.h"
#include "web/options.h"
#include "web/packet.h"
#include "web/streams/icecast_feeder.h"
#include "web/upstream/feed.h"
#include "web/upstream/server_locator.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Opens the server's streams that have listeners and passes them to the workers. Lives on the
/// thread of the first worker.
class Station : public FeedEvents {
  public:
    /// `workers` are borrowed and outlive this; there is at least one.
    Station(const Options& options, Workers& workers);

    /// Looks for the server and starts to feed Icecast. Thread: the first worker's, as for close().
    void start();

    /// Disconnects from the server, which takes up to half a second, and lets nobody in any more.
    void close();

    /// True once there are no listeners and all connections are closed. Thread: the first worker's.
    [[nodiscard]] bool closed() const;

    /// Takes one of the places for listeners; false when all are taken. Thread: any.
    [[nodiscard]] bool reserve();
    /// Frees a place. Thread: any.
    void release() { --listeners_; }

    /// The subscriber, for whom a place is reserved, gets the channel until it leaves. Thread: the
    /// worker's.
    void join(ChannelId channel, Worker& worker, std::shared_ptr<Subscriber> subscriber);
    /// Also frees the place. Thread: the worker's, not within take().
    void leave(ChannelId channel, Worker& worker, Subscriber& subscriber);

    /// Calls `answer` with the JSON text of /status. Thread: the worker's, as is the answer.
    void askStatus(Worker& worker, std::function<void(const std::string&)> answer);

  private:
    /// A feed in use.
    struct Place {
        std::unique_ptr<Feed> feed;
        boost::asio::steady_timer linger;  ///< From its last listener to its end.
    };

    void publish(ChannelId channel, const PacketPtr& packet) override;
    void soundCame(int sampleRate) override { sampleRate_ = sampleRate; }
    void feedClosed(const Feed& feed) override;
    void add(ChannelId channel, Worker& worker, const std::shared_ptr<Subscriber>& subscriber);
    void remove(ChannelId channel, Worker& worker);
    Place& use(std::uint32_t rateCode);
    void feedIcecast(const Packet& packet);
    void closeLater(Place& place);
    void closeNow(Place& place);
    [[nodiscard]] std::string status() const;

    const std::string title_;
    std::atomic<std::size_t> maxListeners_;
    const std::vector<IcecastTarget> icecast_;
    Workers& workers_;
    boost::asio::io_context& context_;
    ServerLocator locator_;
    std::vector<Place> places_;  ///< By rate code.
    std::vector<std::unique_ptr<Feed>> closing_;
    std::vector<std::unique_ptr<IcecastFeeder>> feeders_;
    std::vector<std::future<void>> feederEnds_;  ///< Ends of the feeders.
    /// Listeners of each channel on each worker.
    std::vector<std::array<std::size_t, CHANNELS.size()>> counts_;
    std::atomic<std::size_t> listeners_{0};
    int sampleRate_ = 0;  ///< Of the latest sound in Hz; 0 before the first.
};

}  // namespace vxweb
