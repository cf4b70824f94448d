#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

#include "tests/support/capture_table.h"

/// Holds the audio of one connection against what its client has asked for: each packet has the
/// mode and rate of a request, in the order of the requests, and the latest one is answered soon.
///
/// Flags here are those of a data request: delivery and rate code.
class RequestCheck {
  public:
    explicit RequestCheck(const CaptureTable& captureTable) : table(captureTable) {}

    /// A new connection, which has not asked for anything.
    void restart();

    void asked(std::uint32_t flags);

    /// The client stands still or comes back: what is due is counted from now on.
    void excuse();

    /// An audio packet has come; `present` when it holds sound of just now. Empty, or what is
    /// wrong with it.
    std::string take(std::uint32_t flags, bool present);

    /// Called whenever the client has nothing left to read. Empty, or the complaint that the
    /// latest request has gone without an answer for too long; `timeout` is its least time.
    std::string overdue(std::chrono::milliseconds timeout);

    /// False for best-effort audio, and when nothing has been asked for.
    [[nodiscard]] bool latestReliable() const;

    /// True when audio under way may be a reliable fallback packet, which ENet sends in two parts.
    [[nodiscard]] bool halvesPossible() const;

    long kept = 0;  ///< Requests answered by sound of the present.

  private:
    using Clock = std::chrono::steady_clock;

    const CaptureTable& table;
    std::deque<std::uint32_t> requests;  ///< The one in force, then those under way.
    bool latestKept = false;
    std::uint64_t sinceCallback = 0;
    Clock::time_point since;
    long rounds = 0;  ///< Calls of overdue() since then.
};
