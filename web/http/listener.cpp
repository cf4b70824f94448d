#include "web/http/listener.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <string_view>
#include <utility>

#include <boost/asio/post.hpp>

#include "listen/clock.h"

namespace vxweb {

namespace {

constexpr std::int64_t MAX_LIVE_DELAY = 1 * vxlisten::SECOND;
/// Maximum time of sound in the kernel; more waits here, where it can be dropped.
constexpr std::int64_t MAX_UNREAD = 500 * vxlisten::MILLISECOND;
/// In addition to 128 KiB for each connection in the kernel.
constexpr std::size_t MAX_WAITING = std::size_t{112} * 1024;
constexpr std::int64_t MAX_STALL = 10 * vxlisten::SECOND;
/// Interval of the checks for a listener who has vanished or does not read.
constexpr std::int64_t CHECK_INTERVAL = 1 * vxlisten::SECOND;
constexpr std::chrono::seconds END_TIMEOUT{10};

boost::asio::const_buffer toBuffer(std::string_view bytes) {
    return {bytes.data(), bytes.size()};
}

}  // namespace

Listener::Listener(std::shared_ptr<Connection> connection, Slow slow, bool framed)
    : connection_(std::move(connection)),
      slow_(slow),
      framed_(framed),
      endTimer_(connection_->executor()) {}

void Listener::send(PacketPtr packet) {
    assert(thread_.here());
    if (closed_ || ending_) {
        return;
    }
    if (packet->sound || slow_ == Slow::LosesSound) {  // A stream's header may be hours old.
        now_ = std::max(now_, packet->time);
    }
    if (timedOut()) {
        close(boost::asio::error::timed_out);
        return;
    }
    std::size_t gone = 0;
    if (queue_.empty() && !unread()) {
        Error error;
        const std::string_view bytes = packet->view(framed_);
        gone = connection_->tryWrite(toBuffer(bytes), error);
        written_ += static_cast<std::int64_t>(gone);
        if (gone == bytes.size()) {
            return;
        }
    } else if (slow_ == Slow::LosesSound) {
        makeRoom(*packet);
    } else if (packet->sound && isTooMuch(*packet)) {
        return;
    }
    queue_.push_back({std::move(packet), gone, nullptr});
    flush();
}

void Listener::sendOwn(std::string bytes, Done done) {
    assert(thread_.here());
    auto packet = std::make_shared<Packet>();
    packet->bytes = std::move(bytes);
    packet->bodyLength = packet->bytes.size();
    packet->sound = false;
    // Before the sound that waits, which may never be read.
    const auto place =
        std::find_if(firstWaiting(), queue_.end(), [](const Entry& entry) { return !entry.done; });
    queue_.insert(place, {std::move(packet), 0, std::move(done)});
    if (closed_) {
        close();
    } else {
        flush();
    }
}

void Listener::sendLast(std::string bytes, Done done) {
    ending_ = true;
    queue_.erase(std::remove_if(firstWaiting(), queue_.end(),
                                [](const Entry& entry) { return !entry.done; }),
                 queue_.end());
    endTimer_.expires_after(END_TIMEOUT);
    endTimer_.async_wait([weak = weak_from_this()](const Error& error) {
        const auto self = weak.lock();
        if (!error && self) {
            self->close(boost::asio::error::timed_out);
        }
    });
    sendOwn(std::move(bytes), std::move(done));
}

/// The first entry of which nothing has been written.
std::deque<Listener::Entry>::iterator Listener::firstWaiting() {
    const bool begun = !queue_.empty() && (writing_ || queue_.front().gone > 0);
    return queue_.begin() + (begun ? 1 : 0);
}

/// Makes room in a live listener's queue for a packet.
void Listener::makeRoom(const Packet& packet) {
    // After a text message all earlier packets are useless.
    const auto useless = [&packet](const Entry& entry) {
        const bool old = packet.time - entry.packet->time > MAX_LIVE_DELAY;
        return !entry.done && (!packet.sound || (entry.packet->sound && old));
    };
    queue_.erase(std::remove_if(firstWaiting(), queue_.end(), useless), queue_.end());
    for (auto it = firstWaiting(); it != queue_.end() && isTooMuch(packet);) {
        it = it->packet->sound && !it->done ? queue_.erase(it) : it + 1;
    }
}

/// True when a packet would exceed the queue's maximum.
bool Listener::isTooMuch(const Packet& packet) const {
    std::size_t bytes = packet.bytes.size();
    for (const Entry& entry : queue_) {
        bytes += entry.packet->bytes.size();
    }
    return !queue_.empty() && bytes > MAX_WAITING;
}

bool Listener::timedOut() {
    if (now_ - checkedAt_ < CHECK_INTERVAL) {
        return false;
    }
    checkedAt_ = now_;
    return connection_->vanished() || (slow_ == Slow::LosesConnection && stalled());
}

/// True when a stream's listener has acknowledged nothing for ten seconds, though it should have.
bool Listener::stalled() {
    const std::int64_t waiting = connection_->unacknowledged();
    const std::int64_t acknowledged = written_ - waiting;
    if (acknowledged > mark_.bytes || (waiting == 0 && queue_.empty())) {
        mark_ = {now_, acknowledged};
    }
    return now_ - mark_.time > MAX_STALL;
}

/// True when a live listener has not acknowledged what was written half a second ago.
bool Listener::unread() {
    if (slow_ != Slow::LosesSound || now_ - mark_.time < MAX_UNREAD) {
        return false;
    }
    if (written_ - connection_->unacknowledged() < mark_.bytes) {
        return true;
    }
    mark_ = {now_, written_};
    return false;
}

void Listener::flush() {
    while (!queue_.empty() && !writing_ && !closed_) {
        const Entry& next = queue_.front();
        if (next.packet->sound && next.gone == 0 && unread()) {
            return;  // Until the next packet.
        }
        const auto rest = toBuffer(next.packet->view(framed_)) + next.gone;
        Error error;
        const std::size_t count = connection_->tryWrite(rest, error);
        if (error == boost::asio::error::would_block) {
            writing_ = true;
            connection_->write(
                rest, [self = shared_from_this()](const Error& problem, std::size_t written) {
                    self->writing_ = false;
                    self->advance(written, problem);
                    self->flush();
                });
        } else {
            advance(count, error);
        }
    }
}

void Listener::advance(std::size_t count, const Error& error) {
    if (error || closed_) {
        close(error);
        return;
    }
    Entry& entry = queue_.front();
    entry.gone += count;
    written_ += static_cast<std::int64_t>(count);
    if (entry.gone >= entry.packet->view(framed_).size()) {
        finish(std::move(entry.done), {});
        queue_.pop_front();
    }
}

void Listener::close(const Error& error) {
    closed_ = true;
    connection_->close();
    while (!queue_.empty() && !writing_) {  // What is being written stays valid until the end.
        finish(std::move(queue_.front().done), error ? error : boost::asio::error::not_connected);
        queue_.pop_front();
    }
}

void Listener::finish(Done done, const Error& error) {
    if (done) {
        boost::asio::post(connection_->executor(),
                          [done = std::move(done), error] { done(error, 0); });
    }
}

}  // namespace vxweb
