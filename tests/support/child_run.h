#pragma once

#include <functional>
#include <string>

/// How a child process ended and what it printed.
struct ChildRun {
    int status = -1;  ///< Exit status; 1000 + the number of the signal that ended it.
    std::string out;
    std::string err;
};

/// Runs `body` in a forked child, so that it can end the process, start threads that never return
/// and use up what happens once per process. The child ends with status 0 when `body` returns
/// without a failed expectation, else with 99. A child that takes longer than 30 s is ended, and
/// whatever a sanitizer says fails the test. Call it before the process has other threads.
ChildRun runChild(const std::function<void()>& body);

/// Environment of a test: set or unset now, put back in the destructor.
class ScopedVariable {
  public:
    ScopedVariable(std::string name, const char* value);  ///< `value` null: unset.
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

  private:
    std::string name;
    std::string before;
    bool wasSet;
};
