#pragma once

#include <atomic>

#include "app/base/VelantrixServerNoGUI.h"  // IWYU pragma: export
#include "app/core_life.h"

/// The core object that receives the streaming side's reports; borrowed. Set by enetHost, pointed
/// at a core that never dies when the real one is about to be destroyed. Null before enetHost.
extern std::atomic<VelantrixServerNoGUI*> mainDialog;

/// Calls `report(core)` on the present report target, keeping it from being destroyed between the
/// look-up and the call. Does nothing before there is a target.
/// Thread: capture | network. As realtime-safe as the report.
template <class Report>
void reportToCore(Report report) {
    const CorePin pin;
    VelantrixServerNoGUI* const core = mainDialog.load();
    if (core != nullptr) {
        report(*core);
    }
}
