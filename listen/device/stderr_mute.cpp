#include "listen/device/stderr_mute.h"

#include <atomic>
#include <cassert>

namespace vxlisten {

namespace {

std::atomic<bool> held{false};

}  // namespace

// With glibc `stderr` is a variable that may be set.

StderrMute::StderrMute() : devNull_(std::fopen("/dev/null", "we")), saved_(stderr) {
    [[maybe_unused]] const bool second = held.exchange(true);
    assert(!second);
    if (devNull_ != nullptr) {
        stderr = devNull_;
    }
}

StderrMute::~StderrMute() {
    if (devNull_ != nullptr) {
        stderr = saved_;
        std::fclose(devNull_);  // NOLINT(cert-err33-c): nothing was to be kept.
    }
    held = false;
}

}  // namespace vxlisten
