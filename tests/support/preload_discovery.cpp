// Makes the set-up of the server's discovery fail, for the system tests. Loaded with LD_PRELOAD;
// the variable VELANTRIX_DISCOVERY_FAULT names the step: "socket" or "reuse".

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/socket.h>

namespace {

bool fault(const char* name) {
    const char* const wanted = std::getenv("VELANTRIX_DISCOVERY_FAULT");
    return wanted != nullptr && std::strcmp(wanted, name) == 0;
}

template <class Function>
Function* original(Function* /*replacement*/, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// The type with which discovery opens its socket; ENet opens its own without the second flag.
constexpr int DISCOVERY_TYPE = SOCK_DGRAM | SOCK_CLOEXEC;

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    if (domain == AF_INET && type == DISCOVERY_TYPE && fault("socket")) {
        errno = EMFILE;
        return -1;
    }
    return original(&socket, "socket")(domain, type, protocol);
}

int setsockopt(int handle, int level, int name, const void* value, socklen_t length) noexcept {
    if (level == SOL_SOCKET && name == SO_REUSEADDR && fault("reuse")) {
        errno = EPERM;
        return -1;
    }
    return original(&setsockopt, "setsockopt")(handle, level, name, value, length);
}
}
