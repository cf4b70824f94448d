#pragma once

/// Watches the calling thread for what a realtime callback may not do: heap calls and locks of the
/// program's own. Those inside diverted library calls (ENet, Opus) do not count. Linked into an
/// executable, it replaces the heap functions and the lock functions.
class CallbackWatch {
  public:
    CallbackWatch();
    ~CallbackWatch();
    CallbackWatch(const CallbackWatch&) = delete;
    CallbackWatch& operator=(const CallbackWatch&) = delete;

    static int allocations();
    static int releases();
    static int locks();

    /// Forgets the counts.
    static void reset();
};
