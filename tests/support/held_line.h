#pragma once

#include <thread>

/// A thread that stops in the middle of printing a line, "held\n". Later lines wait in the queue.
/// One at a time.
class HeldLine {
  public:
    /// Returns when the thread is blocked; it continues after `milliseconds`.
    explicit HeldLine(int milliseconds);
    ~HeldLine();  ///< Lets it continue at once and waits for it.
    HeldLine(const HeldLine&) = delete;
    HeldLine& operator=(const HeldLine&) = delete;

  private:
    std::thread thread;
};
