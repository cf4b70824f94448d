#include "app/core_life.h"

#include <atomic>

#include "app/base/Thread.h"
#include "app/base/core_pin.h"

namespace {

constexpr int PIN_PATIENCE_MS = 500;

// Sequentially consistent on purpose: a pin is counted before the stage is read, and the stage is
// changed before the pins are counted, so one side always sees the other.
std::atomic<CoreStage> currentStage{CoreStage::Alive};
std::atomic<int> pins{0};
thread_local int pinsOfThisThread = 0;

void waitForPins(void (*serveReports)(void*), void* context) {
    for (int waited = 0; waited < PIN_PATIENCE_MS && pins.load() > 0; ++waited) {
        if (serveReports != nullptr) {
            serveReports(context);
        }
        Sleep(1);
    }
}

/// The core that late reports reach. Never destroyed: threads may call it until the very end.
VelantrixServerNoGUI* afterlifeCore() {
    static auto* const core = new VelantrixServerNoGUI;
    return core;
}

}  // namespace

CorePin::CorePin() {
    pins.fetch_add(1);
    ++pinsOfThisThread;
    stageSeen = currentStage.load();
}

CorePin::~CorePin() {
    --pinsOfThisThread;
    pins.fetch_sub(1);
}

CoreUnpin::CoreUnpin() : pinsGivenUp(pinsOfThisThread) {
    pins.fetch_sub(pinsGivenUp);
}

CoreUnpin::~CoreUnpin() {
    pins.fetch_add(pinsGivenUp);
}

bool CoreUnpin::repin() {
    pins.fetch_add(pinsGivenUp);
    pinsGivenUp = 0;
    return currentStage.load() == CoreStage::Alive;
}

void markCoreAlive() {
    currentStage.store(CoreStage::Alive);
}

void closeCore(void (*serveReports)(void*), void* context) {
    if (currentStage.load() != CoreStage::Alive) {
        return;
    }
    VelantrixServerNoGUI* const afterlife = afterlifeCore();
    currentStage.store(CoreStage::Closing);
    mainDialog.store(afterlife);
    waitForPins(serveReports, context);
}

void markCoreDestroyed() {
    currentStage.store(CoreStage::Destroyed);
    waitForPins(nullptr, nullptr);
}
