#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "common/thread_check.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "web/channel.h"
#include "web/packet.h"
#include "web/streams/media_stream.h"
#include "web/upstream/server_locator.h"
#include "web/upstream/upstream.h"

namespace vxweb {

class Feed;

/// The packets that a feed makes, and its end.
class FeedEvents {
  public:
    virtual ~FeedEvents() = default;
    /// For all listeners of the channel.
    virtual void publish(ChannelId channel, const PacketPtr& packet) = 0;
    /// Sound has arrived at this rate in Hz.
    virtual void soundCame(int sampleRate) = 0;
    /// After close(), the last call. The feed may be destroyed once this has returned.
    virtual void feedClosed(const Feed& feed) = 0;
};

/// One of the server's streams while it is in use, and all channels made from it. Everything on the
/// thread of its context.
class Feed : public UpstreamEvents {
  public:
    /// `locator` and `events` are borrowed and outlive this.
    Feed(boost::asio::io_context& context, ServerLocator& locator, std::uint32_t rateCode,
         const std::string& title, FeedEvents& events);
    ~Feed() override;
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    void addListener(ChannelId channel);
    void removeListener(ChannelId channel);

    /// Listeners of all channels.
    [[nodiscard]] std::size_t listeners() const { return listeners_; }

    /// What a new listener of the channel gets first; null for nothing.
    [[nodiscard]] PacketPtr intro(ChannelId channel) const { return outlets_[channel].intro; }

    [[nodiscard]] bool connected() const { return upstream_->connected(); }

    /// Ends the connection.
    void close() { upstream_->close(); }

  private:
    struct Outlet {
        std::size_t listeners = 0;
        PacketPtr intro;
        std::unique_ptr<MediaStream> media;  ///< While it has listeners; not for live channels.
    };

    void packetCame(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                    std::int64_t now, std::int64_t roundTrip) override;
    void serverWentAway() override;
    void timePassed(std::int64_t now) override;
    [[nodiscard]] std::size_t packetsWanted() const override;
    [[nodiscard]] bool roundTripsWanted() const override;
    void upstreamClosed() override;
    [[nodiscard]] bool carries(ChannelId channel) const;
    void sendWaiting(std::int64_t now);
    void introduce(ChannelId channel, PacketPtr intro);
    void publishMedia(ChannelId channel, const Chunk& chunk, std::int64_t now);
    void publishLive(ChannelId channel, const vxlisten::AudioPacket& packet, bool start,
                     std::int64_t now, std::int64_t roundTrip);

    ThreadCheck thread_;
    const std::uint32_t rateCode_;
    const std::string title_;
    FeedEvents& events_;
    std::array<Outlet, CHANNELS.size()> outlets_;
    std::size_t listeners_ = 0;
    bool away_ = false;               ///< The server has been away since its last packet,
    std::int64_t waitingSentAt_ = 0;  ///< which was sent to listeners at this time.
    std::shared_ptr<Upstream> upstream_;
};

}  // namespace vxweb
