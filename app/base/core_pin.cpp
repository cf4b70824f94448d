#include "app/base/core_pin.h"

#include <cassert>

std::atomic<CoreStage> coreStage{CoreStage::Alive};
std::atomic<VelantrixServerNoGUI*> mainDialog{nullptr};

namespace {

// Sequentially consistent: a pin is counted before the stage is read, and the stage is changed
// before the pins are counted, so one side always sees the other.
std::atomic<int> pins{0};
thread_local bool callPinned = false;

}  // namespace

CorePin::CorePin() {
    pins.fetch_add(1);
    stageSeen_ = coreStage.load();
}

CorePin::~CorePin() {
    pins.fetch_sub(1);
}

bool CorePin::anyHeld() {
    return pins.load() > 0;
}

CallPin::CallPin() {
    assert(!callPinned);
    pins.fetch_add(1);
    callPinned = true;
    usable_ = coreStage.load() == CoreStage::Alive;
}

CallPin::~CallPin() {
    release();
}

void CallPin::release() {
    if (callPinned) {
        callPinned = false;
        pins.fetch_sub(1);
    }
}
