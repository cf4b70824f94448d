#include <pthread.h>

#include "tests/support/call_faults.h"

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_join(pthread_t, void**);
int __real_pthread_getschedparam(pthread_t, int*, sched_param*);
int __real_pthread_setschedparam(pthread_t, int, const sched_param*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*fn)(void*),
                          void* argument) {
    const int error = noteCall(Call::PthreadCreate, "pthread_create");
    if (error != 0) {
        *thread = pthread_self();  // Undefined then.
        return error;
    }
    const int result = __real_pthread_create(thread, attributes, fn, argument);
    if (result == 0 && afterThreadCreation()) {
        afterThreadCreation()();
    }
    return result;
}

int __wrap_pthread_join(pthread_t thread, void** value) {
    const int error = noteCall(Call::PthreadJoin, "pthread_join");
    return error != 0 ? error : __real_pthread_join(thread, value);
}

int __wrap_pthread_getschedparam(pthread_t thread, int* policy, sched_param* parameters) {
    const int error = noteCall(Call::PthreadGetSchedParam, "pthread_getschedparam");
    return error != 0 ? error : __real_pthread_getschedparam(thread, policy, parameters);
}

int __wrap_pthread_setschedparam(pthread_t thread, int policy, const sched_param* parameters) {
    const int error = noteCall(Call::PthreadSetSchedParam, "pthread_setschedparam");
    return error != 0 ? error : __real_pthread_setschedparam(thread, policy, parameters);
}
}
