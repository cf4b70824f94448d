#include "listen/device/stderr_mute.h"

namespace vxlisten {

// With glibc `stderr` is a variable that may be set.

StderrMute::StderrMute() : nowhere_(std::fopen("/dev/null", "we")), saved_(stderr) {
    if (nowhere_ != nullptr) {
        stderr = nowhere_;
    }
}

StderrMute::~StderrMute() {
    if (nowhere_ != nullptr) {
        stderr = saved_;
        std::fclose(nowhere_);  // NOLINT(cert-err33-c): nothing was to be kept.
    }
}

}  // namespace vxlisten
