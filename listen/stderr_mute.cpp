#include "listen/stderr_mute.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace vxlisten {

StderrMute::StderrMute() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    std::fflush(stderr);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved_ >= 0 && nowhere >= 0) {
        dup2(nowhere, STDERR_FILENO);
    }
    if (nowhere >= 0) {
        close(nowhere);
    }
}

StderrMute::~StderrMute() {
    if (saved_ >= 0) {
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
}

}  // namespace vxlisten
