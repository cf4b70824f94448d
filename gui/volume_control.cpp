// The button that opens the PulseAudio volume control.

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

#include "gui/VelantrixServer.h"

namespace {

constexpr int DESCRIPTORS_CLOSED = 256;
constexpr int STATUS_NO_SHELL = 127;

/// Runs in the child, which shares the parent's memory until it runs the shell: nothing here may
/// allocate, lock or return.
[[noreturn]] void becomeVolumeControl() {
    for (int descriptor = 0; descriptor < DESCRIPTORS_CLOSED; ++descriptor) {
        ::close(descriptor);
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::execl("/bin/sh", "sh", "-c", "pavucontrol", static_cast<char*>(nullptr));
    ::_exit(STATUS_NO_SHELL);
}

}  // namespace

void VelantrixServer::handlePAVButtonClicked() {
    if (::vfork() == 0) {
        becomeVolumeControl();
    }
}
