#pragma once

#include <atomic>

#include "app/base/VelantrixServerNoGUI.h"  // IWYU pragma: export

/// Keeps threads that outlive the core object from using it after its destruction.
///
/// The capture, network, discovery and version check threads are never joined: they run while the
/// main thread destroys the core. A thread holds a CorePin for as long as it uses the object. The
/// destructors (app/core_life.h) first make new pins fail and direct new reports to a plain core
/// that lives until the process ends, then wait for the pins still held, then destroy. The wait is
/// short and bounded: a thread that is still blocked inside a report then returns later, and
/// touches nothing of the object.

enum class CoreStage {
    Alive,     ///< In use.
    Closing,   ///< The window's part is being destroyed; the core's own members still exist.
    Destroyed  ///< No part of the object may be touched.
};

/// A use of the core object by another thread. Realtime-safe: yes (one atomic increment).
class CorePin {
  public:
    CorePin();
    ~CorePin();
    CorePin(const CorePin&) = delete;
    CorePin& operator=(const CorePin&) = delete;

    /// The stage of the core when the pin was taken. Alive allows everything; Closing allows the
    /// core's own members but no virtual call; Destroyed allows nothing.
    [[nodiscard]] CoreStage stage() const { return stageSeen_; }

    /// True when the whole object may be used.
    explicit operator bool() const { return stageSeen_ == CoreStage::Alive; }

    /// Whether any thread holds a pin. Thread: main.
    static bool anyHeld();

  private:
    CoreStage stageSeen_;
};

/// The pin for a virtual call of the core that may never return. The called function gives it up
/// with release() first, and then pins the core where it uses it. Thread: version check.
class CallPin {
  public:
    CallPin();
    ~CallPin();
    CallPin(const CallPin&) = delete;
    CallPin& operator=(const CallPin&) = delete;

    /// True when the call may be made.
    explicit operator bool() const { return usable_; }

    /// Releases the pin of the calling thread; without one it does nothing.
    static void release();

  private:
    bool usable_ = false;
};

/// The stage that new pins see. Only main writes it, through app/core_life.h.
extern std::atomic<CoreStage> coreStage;

/// The core object that receives the streaming side's reports; borrowed. Set by enetHost; when that
/// core is about to be destroyed, changed to one that is never destroyed. Null before enetHost.
extern std::atomic<VelantrixServerNoGUI*> mainDialog;

/// Calls `report(core)` on the present report target, pinned so that it is not destroyed meanwhile.
/// Does nothing before there is a target. Thread: capture | network. As realtime-safe as the
/// report.
template <class Report>
void reportToCore(Report report) {
    const CorePin pin;
    VelantrixServerNoGUI* const core = mainDialog.load();
    if (core != nullptr) {
        report(*core);
    }
}
