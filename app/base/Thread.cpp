#include "app/base/Thread.h"

#include <cassert>
#include <cerrno>
#include <sched.h>
#include <unistd.h>

namespace {

constexpr int ALREADY_STARTED = 10;
constexpr int NO_PERMISSION = 11;
constexpr int SYSTEM_ERROR_BASE = 1000;

int statusOf(int error) {
    return error == 0 ? 0 : SYSTEM_ERROR_BASE + error;
}

}  // namespace

int Thread::_initResult = Thread::init();

// The hook for a threading library that needs process-wide set-up.
int Thread::init() noexcept {
    return 0;
}

Thread::Thread() {
    pthread_attr_init(&attributes_);
    pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_JOINABLE);
}

Thread::~Thread() {
    pthread_attr_destroy(&attributes_);
}

int Thread::start(void* (*fn)(void*), void* arg) {
    assert(owner_.here());
    if (handle_ != 0) {
        return ALREADY_STARTED;
    }
    // Stored before the thread runs: it may use tid() at once.
    const int error = fn == nullptr ? pthread_create(&handle_, &attributes_, s_Run, this)
                                    : pthread_create(&handle_, &attributes_, fn, arg);
    if (error != 0) {
        handle_ = 0;
    }
    return statusOf(error);
}

// The base run() does nothing, so calling it is the same as leaving it out.
void* Thread::s_Run(void* object) {
    if (object != nullptr) {
        static_cast<Thread*>(object)->run();
    }
    return nullptr;
}

int Thread::join(int* result) {
    assert(owner_.here());
    if (handle_ == 0) {
        return statusOf(ESRCH);  // 0 is no handle that the system may look at.
    }
    void* dropped = nullptr;
    const int error = pthread_join(handle_, result == nullptr ? nullptr : &dropped);
    if (error == 0) {
        handle_ = 0;
    }
    return statusOf(error);
}

int Thread::run() {
    return 0;
}

int Thread::setPriority(int priority) {
    assert(owner_.here());
    if (handle_ == 0) {
        return statusOf(ESRCH);
    }
    int policy = 0;
    sched_param parameters = {};
    int error = pthread_getschedparam(handle_, &policy, &parameters);
    if (error != 0) {
        return statusOf(error);
    }
    parameters.sched_priority = priority;
    error = pthread_setschedparam(handle_, priority > 0 ? SCHED_FIFO : SCHED_OTHER, &parameters);
    return error == EPERM ? NO_PERMISSION : statusOf(error);
}

void Sleep(int milliseconds) {
    ::usleep(static_cast<useconds_t>(milliseconds) * 1000U);
}
