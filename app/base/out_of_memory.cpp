#include "app/base/out_of_memory.h"

#include <cassert>
#include <cstdlib>
#include <exception>
#include <new>
#include <unistd.h>

#include "app/base/console.h"
#include "app/base/process_exit.h"
#include "common/thread_check.h"

namespace {

constexpr int FATAL_STATUS = 255;
constexpr unsigned READER_TIMEOUT_S = 1;

thread_local bool throwing = false;
std::terminate_handler otherTermination = nullptr;

// Without memory exit handlers may fail, so only print the line and set the status. Standard error
// may be turned off now: use standard output.
[[noreturn]] void endProcess() {
    limitExit(FATAL_STATUS, READER_TIMEOUT_S);
    consolePuts("VelantrixServer: not enough memory. Quitting.");
    consoleDrain();
    ::_exit(FATAL_STATUS);
}

void onNoMemory() {
    if (throwing) {
        throw std::bad_alloc();
    }
    endProcess();
}

/// Qt throws without calling the handler of operator new.
[[noreturn]] void onTerminate() {
    if (const std::exception_ptr thrown = std::current_exception()) {
        try {
            std::rethrow_exception(thrown);
        } catch (const std::bad_alloc&) {
            endProcess();
        } catch (...) {
        }
    }
    otherTermination();
    std::abort();
}

}  // namespace

void endWhenOutOfMemory() {
    assert(onMainThread());
    std::set_new_handler(onNoMemory);
    otherTermination = std::set_terminate(onTerminate);
}

ThrowWhenOutOfMemory::ThrowWhenOutOfMemory() {
    assert(!throwing);
    throwing = true;
}

ThrowWhenOutOfMemory::~ThrowWhenOutOfMemory() {
    throwing = false;
}
