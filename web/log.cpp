#include "web/log.h"

#include <cstdio>
#include <poll.h>
#include <unistd.h>

namespace vxweb {

void say(const std::string& line) {
    const std::string whole = line + "\n";
    // A writable pipe accepts a line of this length without waiting.
    pollfd out = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) > 0 && (out.revents & POLLOUT) != 0) {
        const ssize_t written = write(STDOUT_FILENO, whole.data(), whole.size());
        static_cast<void>(written);  // A line that cannot be printed is lost.
    }
}

void complain(const std::string& sentence) {
    std::fprintf(stderr, "velantrix-web: %s\n", sentence.c_str());
}

}  // namespace vxweb
