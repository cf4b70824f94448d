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
constexpr unsigned READER_PATIENCE_S = 1;

thread_local bool throwing = false;
std::terminate_handler otherTermination = nullptr;

// Without memory no exit handler can be trusted to run: only the line and the status are left.
// Standard error may be turned off at this moment, so it goes where all lines go.
[[noreturn]] void endProcess() {
    limitExit(FATAL_STATUS, READER_PATIENCE_S);
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

/// Qt throws by itself, past the handler of operator new.
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
