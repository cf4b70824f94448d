#pragma once

#include <algorithm>
#include <cstdint>

namespace vxlisten {

/// Back-off: pauses between attempts to reach a server, each twice as long as the one before, up to
/// a maximum.
class RetryPause {
  public:
    static constexpr std::int64_t FIRST_MS = 250;
    static constexpr std::int64_t MAXIMUM_MS = 5000;

    /// `maximum` in milliseconds.
    explicit RetryPause(std::int64_t maximum = MAXIMUM_MS) : maximum_(maximum) {}

    /// The pause before the next attempt, in milliseconds.
    std::int64_t next() {
        const std::int64_t pause = next_;
        next_ = std::min(2 * next_, maximum_);
        return pause;
    }

    /// Starts over, after a connection that brought audio.
    void reset() { next_ = FIRST_MS; }

  private:
    std::int64_t maximum_;
    std::int64_t next_ = FIRST_MS;
};

}  // namespace vxlisten
