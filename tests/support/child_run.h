#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

#include <gtest/gtest.h>

/// How a child process ended and what it printed.
struct ChildRun {
    int status = -1;  ///< Exit status; 1000 + the number of the signal that ended it.
    std::string out;
    std::string err;
};

/// A forked child that runs `body`, so that it can end the process, start threads that never return
/// and use up what happens once per process. The child ends with status 0 when `body` returns
/// without a failed expectation, else with 99. Start it before the process has other threads.
class Child {
  public:
    explicit Child(const std::function<void()>& body);
    ~Child();  ///< Ends a child that has not been waited for, with SIGTERM.
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] pid_t id() const { return process_; }

    /// The standard output, after waiting at most some seconds for `wanted`.
    [[nodiscard]] std::string printed(const std::string& wanted = "") const;

    /// The same for standard error.
    [[nodiscard]] std::string reported(const std::string& wanted = "") const;

    /// Waits for the end. A child that takes longer than 30 s is ended, and whatever a sanitizer
    /// says fails the test.
    ChildRun wait();

  private:
    int out_;
    int err_;
    pid_t process_;
};

/// Runs `body` in a child until its end.
ChildRun runChild(const std::function<void()>& body);

/// A TEST whose body runs in a child.
#define CHILD_TEST(suite, name)              \
    struct suite##name##InChild {            \
        static void run();                   \
    };                                       \
    TEST(suite, name) {                      \
        runChild(suite##name##InChild::run); \
    }                                        \
    void suite##name##InChild::run()

/// All that a descriptor gives: of a file its text from the start, of a pipe or a terminal, which
/// must not block, what waits in it.
std::string readAll(int descriptor);

/// Environment of a test: set or unset now, put back in the destructor.
class ScopedVariable {
  public:
    ScopedVariable(std::string name, const char* value);  ///< `value` null: unset.
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

  private:
    std::string name_;
    std::string before_;
    bool wasSet_;
};

/// Standard output of this process goes to a descriptor while the object exists.
class OutputTo {
  public:
    explicit OutputTo(int descriptor);
    ~OutputTo();
    OutputTo(const OutputTo&) = delete;
    OutputTo& operator=(const OutputTo&) = delete;

  private:
    int saved_;
};
