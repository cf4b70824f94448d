#pragma once

#include <atomic>
#include <thread>
#include <unistd.h>

/// True on the thread that runs main(). Thread: any. Realtime-safe: yes.
inline bool onMainThread() {
    return ::gettid() == ::getpid();
}

/// Checks that certain calls come from one thread: `assert(check.here())` in each of them. The
/// first call decides which thread that is.
class ThreadCheck {
  public:
    /// True on the thread that called first. Thread: any. Realtime-safe: yes.
    [[nodiscard]] bool here() const {
        std::thread::id owner;  // Nobody.
        const std::thread::id caller = std::this_thread::get_id();
        return owner_.compare_exchange_strong(owner, caller) || owner == caller;
    }

    /// True when another thread called here() before. Thread: any. Realtime-safe: yes.
    [[nodiscard]] bool elsewhere() const {
        const std::thread::id owner = owner_;
        return owner != std::thread::id() && owner != std::this_thread::get_id();
    }

    /// The next call of here() decides anew; the thread so far makes no more. Thread: any.
    void release() { owner_ = std::thread::id(); }

  private:
    mutable std::atomic<std::thread::id> owner_{std::thread::id()};
};
