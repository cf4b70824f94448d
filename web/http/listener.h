#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "common/thread_check.h"
#include "web/http/connection.h"
#include "web/packet.h"

namespace vxweb {

/// Writes packets to one connection without ever making anybody wait for it: what does not go at
/// once is queued, 112 KiB of sound at most. Everything on the connection's thread.
class Listener : public std::enable_shared_from_this<Listener> {
  public:
    /// What happens to one who does not read.
    enum class Slow {
        LosesSound,       ///< What has waited for more than a second.
        LosesConnection,  ///< When sound has waited for more than ten; before, what is too much.
    };

    /// `framed`: packets go with their frames.
    Listener(std::shared_ptr<Connection> connection, Slow slow, bool framed);

    /// Writes a packet after those before it. The connection is closed when it cannot be written
    /// to; nobody is called.
    void send(PacketPtr packet);

    /// As send(), for what belongs to this listener alone and is never left out. `done` is called,
    /// not from within, when it has gone.
    void sendOwn(std::string bytes, Done done);

    [[nodiscard]] Connection& connection() const { return *connection_; }

  private:
    struct Entry {
        PacketPtr packet;
        std::size_t gone = 0;  ///< Bytes of it that have been written.
        Done done;             ///< Set for what is never left out.
    };

    [[nodiscard]] bool makeRoom(const Packet& packet);
    [[nodiscard]] bool tooMuch(const Packet& packet) const;
    [[nodiscard]] bool unread();
    [[nodiscard]] bool vanished();
    void flush();
    void advance(std::size_t count, const Error& error);
    void fail(const Error& error);
    void finish(Done done, const Error& error);

    ThreadCheck thread_;
    std::shared_ptr<Connection> connection_;
    const Slow slow_;
    const bool framed_;
    bool writing_ = false;  ///< The first entry's bytes are being written.
    bool failed_ = false;
    std::int64_t lookedAfter_ = 0;
    std::int64_t now_ = 0;      ///< Time of the latest packet.
    std::int64_t written_ = 0;  ///< Bytes so far,
    /// and how many they were at a former time.
    struct {
        std::int64_t time = 0;
        std::int64_t written = 0;
    } mark_;
    std::deque<Entry> queue_;
};

}  // namespace vxweb
