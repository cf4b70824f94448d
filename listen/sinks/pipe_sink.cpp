#include "listen/sinks/pipe_sink.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include <climits>

#include "listen/stop_request.h"

namespace vxlisten {

namespace {

constexpr int POLL_MS = 100;
/// A pipe that poll() reports writable accepts this much without blocking.
constexpr std::size_t PIECE_BYTES = PIPE_BUF;

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "Samples leave in the machine's byte order, which must be little-endian"
#endif

}  // namespace

SinkState PipeSink::write(const std::int16_t* frames, std::size_t count, int rate) {
    if (state_ != SinkState::Open) {
        return state_;
    }
    if (!adapter_) {
        adapter_.emplace(rate);
    }
    const auto& converted = adapter_->convert(frames, count, rate);
    return writeBytes(reinterpret_cast<const char*>(converted.data()),
                      converted.size() * sizeof converted[0]);
}

bool PipeSink::readerGone() const {
    pollfd waiting = {descriptor_, 0, 0};
    return poll(&waiting, 1, 0) > 0 && (waiting.revents & (POLLERR | POLLHUP)) != 0;
}

bool PipeSink::waitForRoom() const {
    pollfd waiting = {descriptor_, POLLOUT, 0};
    do {
        if (poll(&waiting, 1, POLL_MS) > 0) {
            return true;
        }
    } while (!stopRequested());
    return false;
}

SinkState PipeSink::writeBytes(const char* bytes, std::size_t count) {
    while (count > 0) {
        if (!waitForRoom()) {
            return state_ = SinkState::Closed;
        }
        const ssize_t written = ::write(descriptor_, bytes, std::min(count, PIECE_BYTES));
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return stop(errno);
        }
        const std::size_t taken = written > 0 ? static_cast<std::size_t>(written) : 0;
        bytes += taken;
        count -= taken;
    }
    return SinkState::Open;
}

SinkState PipeSink::stop(int errorNumber) {
    if (errorNumber == EPIPE) {
        return state_ = SinkState::Closed;
    }
    return state_ = fail("cannot write to standard output: " +
                         std::generic_category().message(errorNumber));
}

}  // namespace vxlisten
