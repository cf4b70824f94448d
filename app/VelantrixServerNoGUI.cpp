#include "app/base/VelantrixServerNoGUI.h"

#include <cassert>

#include "app/base/Thread.h"
#include "app/base/console.h"
#include "app/base/core_pin.h"
#include "app/base/process_exit.h"
#include "app/core_life.h"
#include "audio/Audio.h"
#include "common/thread_check.h"
#include "discovery/multi_host.h"
#include "gui/Settings.h"
#include "stream/network_host.h"
#include "update/WebIf.h"

namespace {

constexpr int SHUTDOWN_CHECKS = 15;
constexpr int SHUTDOWN_STEP_MS = 200;

}  // namespace

VelantrixServerNoGUI::VelantrixServerNoGUI() {
    markCoreAlive();
}

VelantrixServerNoGUI::~VelantrixServerNoGUI() {
    closeCore(nullptr, nullptr);
    closeAudioUnderWatchdog();
    markCoreDestroyed();
}

void VelantrixServerNoGUI::init() {
    assert(onMainThread());
    consolePuts("Velantrix Server v" VELANTRIX_VERSION);
    Settings::loadSettings();

    int err = startMember(audioCommThread, this, &VelantrixServerNoGUI::audioCommThreadFn);
    if (err != 0) {
        consolePrintf("Could not create audio thread, err = %d\n", err);
        ExitProcess(-1);
    }
    err = startMember(multiCommThread, this, &VelantrixServerNoGUI::multiCommThreadFn);
    if (err != 0) {
        consolePrintf("Could not create multicast receive thread, err = %d\n", err);
        ExitProcess(-1);
    }
    WebIf::init();
    err = startMember(versionCheckThread, this, &VelantrixServerNoGUI::versionCheckThreadFn);
    if (err != 0) {
        consolePrintf("Could not create version check thread, err = %d\n", err);
    }
}

void VelantrixServerNoGUI::SetAudioCaptureActive() {
    static std::atomic<bool> firstTime{true};
    if (firstTime.load(std::memory_order_relaxed) && firstTime.exchange(false)) {
        consolePuts("VelantrixServer: Audio capture running");
    }
    audioCaptureActive.store(true, std::memory_order_relaxed);
}

void VelantrixServerNoGUI::emitShowMessage(const char* message) {
    consolePuts(message);
}

void VelantrixServerNoGUI::SetClientStatus(int /*clientCount*/, const char* /*clientName*/,
                                           bool /*direct*/) {}

void VelantrixServerNoGUI::audioCommThreadFn() {
    enetHost(this);
}

void VelantrixServerNoGUI::multiCommThreadFn() {
    multiHost();
}

void VelantrixServerNoGUI::audioShutdownThreadFn() {
    Audio::Close();
    // After the watchdog's time the object may be gone.
    const CorePin pin;
    if (pin.stage() != CoreStage::Destroyed) {
        audioShutdownDone.store(true, std::memory_order_release);
    }
}

void VelantrixServerNoGUI::closeAudioUnderWatchdog() {
    audioShutdownDone.store(false);
    const int err =
        startMember(audioShutdownThread, this, &VelantrixServerNoGUI::audioShutdownThreadFn);
    if (err != 0) {
        consolePrintf("Could not create audio shutdown thread, err = %d\n", err);
        return;
    }
    for (int check = 0; check < SHUTDOWN_CHECKS; ++check) {
        if (audioShutdownDone.load(std::memory_order_acquire)) {
            return;
        }
        Sleep(SHUTDOWN_STEP_MS);
    }
    consolePuts(
        "VelantrixServer: Audio shutdown is taking a long time, may be caused by an audio driver "
        "issue. Quitting.");
}
