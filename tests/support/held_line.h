#pragma once

#include <thread>

/// A thread that stands still in the middle of printing a line, "held\n". What is printed after it
/// waits in the queue meanwhile. One at a time.
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
