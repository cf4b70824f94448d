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

    /// What was printed so far on standard output, after waiting a few seconds at most for `wanted`
    /// to appear.
    std::string printed(const std::string& wanted) { return output.waitFor(wanted); }

    /// The same for standard error.
    std::string reported(const std::string& wanted) { return errors.waitFor(wanted); }

    /// What was printed so far on standard error, without waiting.
    std::string reportedSoFar() { return errors.takeWhatIsThere(); }

  private:
    /// A pipe from the child, and what came out of it.
    class Stream {
      public:
        Stream();
        ~Stream();
        Stream(const Stream&) = delete;
        Stream& operator=(const Stream&) = delete;

        void becomeInChild(int handle) const;
        void closeWritingEnd();
        std::string waitFor(const std::string& wanted);
        std::string takeWhatIsThere();

      private:
        bool readMore(int patienceMs);

        int ends[2] = {-1, -1};
        std::string text;
    };

    Stream output;
    Stream errors;
    pid_t child = 0;
};
