#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>

#include <boost/asio/error.hpp>
#include <boost/asio/steady_timer.hpp>

#include "common/thread_check.h"
#include "web/http/connection.h"
#include "web/packet.h"

namespace vxweb {

/// Writes packets to one connection without blocking: what cannot be written at once is queued, at
/// most 112 KiB of sound. Everything on the connection's thread.
class Listener : public std::enable_shared_from_this<Listener> {
  public:
    /// What happens when the client does not read.
    enum class Slow {
        LosesSound,       ///< Sound that has waited for more than a second is dropped.
        LosesConnection,  ///< Closed after ten seconds in which it received nothing; until then
                          ///< sound beyond the maximum is dropped.
    };

    /// `framed`: packets are sent with their frames.
    Listener(std::shared_ptr<Connection> connection, Slow slow, bool framed);

    /// Writes a packet after those before it. Closes the connection when that fails, without a
    /// callback.
    void send(PacketPtr packet);

    /// Writes bytes that only this listener gets and that are never dropped, before the packets
    /// that wait. `done` is called later, when they have been written.
    void sendOwn(std::string bytes, Done done);

    /// As sendOwn(), in place of the packets that wait; later ones are ignored. Closes the
    /// connection ten seconds later, unless this is destroyed before.
    void sendLast(std::string bytes, Done done);

    /// Closes the connection at once; what waits is not sent.
    void close(const Error& error = boost::asio::error::operation_aborted);

  private:
    struct Entry {
        PacketPtr packet;
        std::size_t gone = 0;  ///< Bytes of it that have been written.
        Done done;             ///< Set for bytes that are never dropped.
    };

    [[nodiscard]] std::deque<Entry>::iterator firstWaiting();
    void makeRoom(const Packet& packet);
    [[nodiscard]] bool isTooMuch(const Packet& packet) const;
    [[nodiscard]] bool unread();
    [[nodiscard]] bool timedOut();
    [[nodiscard]] bool stalled();
    void flush();
    void advance(std::size_t count, const Error& error);
    void finish(Done done, const Error& error);

    ThreadCheck thread_;
    std::shared_ptr<Connection> connection_;
    const Slow slow_;
    const bool framed_;
    bool writing_ = false;  ///< The first entry's bytes are being written.
    bool closed_ = false;
    bool ending_ = false;  ///< The last bytes are queued.
    boost::asio::steady_timer endTimer_;
    std::int64_t checkedAt_ = 0;
    std::int64_t now_ = 0;      ///< Time of the latest packet.
    std::int64_t written_ = 0;  ///< Bytes so far,
    /// and how many had been written (live) or acknowledged (stream) at an earlier time.
    struct {
        std::int64_t time = 0;
        std::int64_t bytes = std::numeric_limits<std::int64_t>::min();
    } mark_;
    std::deque<Entry> queue_;
};

}  // namespace vxweb
