#include "tests/support/callback_watch.h"

#include <cerrno>
#include <cstddef>
#include <dlfcn.h>
#include <pthread.h>

#include "tests/support/call_faults.h"

namespace {

thread_local bool watching = false;
thread_local int allocationCount = 0;
thread_local int releaseCount = 0;
thread_local int lockCount = 0;

void note(int& count) {
    if (watching && !DivertedCall::active()) {
        ++count;
    }
}

template <class Function>
Function* original(Function* /*replacement*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

CallbackWatch::CallbackWatch() {
    watching = true;
}

CallbackWatch::~CallbackWatch() {
    watching = false;
}

int CallbackWatch::allocations() {
    return allocationCount;
}

int CallbackWatch::releases() {
    return releaseCount;
}

int CallbackWatch::locks() {
    return lockCount;
}

void CallbackWatch::reset() {
    allocationCount = 0;
    releaseCount = 0;
    lockCount = 0;
}

extern "C" {

void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
    note(allocationCount);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    note(allocationCount);
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
    note(allocationCount);
    return __libc_realloc(memory, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    note(allocationCount);
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    note(allocationCount);
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    note(allocationCount);
    *memory = __libc_memalign(alignment, size);
    return *memory != nullptr ? 0 : ENOMEM;
}

void free(void* memory) {
    note(releaseCount);
    __libc_free(memory);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    static auto* const real = original(&pthread_mutex_lock, "pthread_mutex_lock");
    note(lockCount);
    return real(mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    static auto* const real = original(&pthread_cond_wait, "pthread_cond_wait");
    note(lockCount);
    return real(condition, mutex);
}

int pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
    static auto* const real = original(&pthread_rwlock_rdlock, "pthread_rwlock_rdlock");
    note(lockCount);
    return real(lock);
}

int pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
    static auto* const real = original(&pthread_rwlock_wrlock, "pthread_rwlock_wrlock");
    note(lockCount);
    return real(lock);
}
}
