#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

/// multiHost() in a child process, in the network namespace of the thread that builds this.
class Responder {
  public:
    /// `prepare` runs in the child first (environment, limits).
    explicit Responder(const std::function<void()>& prepare = [] {});
    ~Responder();
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    /// Waits until the group has been joined; false when that does not come within seconds.
    [[nodiscard]] bool waitUntilListening() const;

    /// Waits for multiHost() to return; what it returned, or -1 when it does not within seconds.
    int waitForResult();

    /// What was printed so far, after waiting a few seconds at most for `wanted` to appear.
    std::string printed(const std::string& wanted);

  private:
    bool readMore(int patienceMs);

    pid_t child = 0;
    int output = -1;
    std::string text;
};
