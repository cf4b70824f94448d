#include <new>

#include "app/base/Thread.h"
#include "app/base/console.h"
#include "app/base/core_pin.h"
#include "app/base/out_of_memory.h"
#include "update/WebIf.h"

namespace {

constexpr int WAIT_BEFORE_CHECK_MS = 8000;

}  // namespace

// No other thread waits for this one, so the object may be gone whenever no pin is held.
void VelantrixServerNoGUI::versionCheckThreadFn() {
    Sleep(WAIT_BEFORE_CHECK_MS);
    const CallPin pin;
    if (!pin) {
        return;
    }
    const ThrowWhenOutOfMemory throwWhenOutOfMemory;  // Clients continue without this check.
    try {
        checkVersion();
    } catch (const std::bad_alloc&) {
        consolePuts("Not enough memory to check for a new version");
    }
    if (const CorePin after; after) {
        WebIf::cleanup();
    }
}

// Uses nothing of the object after the check, when it may be gone.
int VelantrixServerNoGUI::checkVersion() {
    CallPin::release();
    WebIf fetcher;
    return fetcher.checkVersion(VELANTRIX_VERSION);
}
