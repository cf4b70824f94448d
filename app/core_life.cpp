#include "app/core_life.h"

#include <cassert>

#include "app/base/Thread.h"
#include "app/base/core_pin.h"
#include "common/thread_check.h"

namespace {

constexpr int PIN_TIMEOUT_MS = 500;

void waitForPins(void (*serveReports)(void*), void* context) {
    for (int waited = 0; waited < PIN_TIMEOUT_MS && CorePin::anyHeld(); ++waited) {
        if (serveReports != nullptr) {
            serveReports(context);
        }
        Sleep(1);
    }
}

/// The core that gets late reports. Never destroyed: threads may call it until the process ends.
VelantrixServerNoGUI* permanentCore() {
    static auto* const core = new VelantrixServerNoGUI;
    return core;
}

}  // namespace

void markCoreAlive() {
    assert(onMainThread());
    coreStage.store(CoreStage::Alive);
}

void closeCore(void (*serveReports)(void*), void* context) {
    assert(onMainThread());
    if (coreStage.load() != CoreStage::Alive) {
        return;
    }
    VelantrixServerNoGUI* const permanent = permanentCore();
    coreStage.store(CoreStage::Closing);
    mainDialog.store(permanent);
    waitForPins(serveReports, context);
}

void markCoreDestroyed() {
    assert(onMainThread());
    coreStage.store(CoreStage::Destroyed);
    waitForPins(nullptr, nullptr);
}
