#pragma once

#include <atomic>
#include <chrono>
#include <thread>

/// Calls `done()` once a millisecond until it returns true, for 10 s or `timeout`; returns whether
/// it did.
template <class Done>
bool waitUntil(Done done, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline bool waitUntil(const std::atomic<bool>& flag) {
    return waitUntil([&flag] { return flag.load(); });
}
