#include "app/base/core_pin.h"

std::atomic<CoreStage> coreStage{CoreStage::Alive};
std::atomic<VelantrixServerNoGUI*> mainDialog{nullptr};

namespace {

// Sequentially consistent on purpose: a pin is counted before the stage is read, and the stage is
// changed before the pins are counted, so one side always sees the other.
std::atomic<int> pins{0};
thread_local int pinsOfThisThread = 0;

}  // namespace

CorePin::CorePin() {
    pins.fetch_add(1);
    ++pinsOfThisThread;
    stageSeen_ = coreStage.load();
}

CorePin::~CorePin() {
    --pinsOfThisThread;
    pins.fetch_sub(1);
}

bool CorePin::anyHeld() {
    return pins.load() > 0;
}

CoreUnpin::CoreUnpin() : pinsGivenUp_(pinsOfThisThread) {
    pins.fetch_sub(pinsGivenUp_);
}

CoreUnpin::~CoreUnpin() {
    pins.fetch_add(pinsGivenUp_);
}

bool CoreUnpin::repin() {
    pins.fetch_add(pinsGivenUp_);
    pinsGivenUp_ = 0;
    return coreStage.load() == CoreStage::Alive;
}
