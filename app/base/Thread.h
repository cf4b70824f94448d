#pragma once

#include <pthread.h>

#include "common/thread_check.h"

/// A POSIX thread with integer status codes. One owner thread starts, joins and destroys an object;
/// nothing here locks.
///
/// Status codes: 0 success; 10 already started and not yet joined; 11 no permission to change the
/// scheduling; 1000 + e for any other failure, e being the system's error number.
class Thread {
  public:
    Thread();

    /// Releases the attributes only: a running thread is neither joined, cancelled nor detached.
    virtual ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Starts `fn(arg)` on a new thread, or run() of this object when `fn` is null. The new thread
    /// may use tid() at once.
    [[nodiscard]] int start(void* (*fn)(void*), void* arg);

    /// Waits for the thread to end. The exit value is dropped: `*result` is never written.
    virtual int join(int* result);

    /// Runs on a thread that was started without a function; the base does nothing.
    virtual int run();

    /// The handle: 0 before a start and after a successful join.
    [[nodiscard]] pthread_t tid() const { return handle_; }

    /// Real-time scheduling (SCHED_FIFO) at a priority above 0, ordinary scheduling otherwise.
    [[nodiscard]] int setPriority(int priority);

    /// Thread entry for run(): `object` is the Thread, or null to do nothing.
    static void* s_Run(void* object);

  private:
    static int init() noexcept;

    static int _initResult;

    pthread_t handle_ = 0;
    pthread_attr_t attributes_;
    ThreadCheck owner_;
};

/// Suspends the calling thread. Thread: any but capture.
void Sleep(int milliseconds);
