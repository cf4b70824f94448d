#include "tests/support/net_namespace.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::fflush(nullptr);
    _exit(1);
}

/// Makes an ordinary user root in a new user namespace.
void becomeRootOfUserNamespace() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER) != 0) {
        fail("these tests need root or user namespaces: unshare");
    }
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    if (geteuid() != 0) {
        fail("these tests need root or user namespaces: uid_map");
    }
}

}  // namespace

NetNamespace::NetNamespace() {
    if (geteuid() != 0) {
        becomeRootOfUserNamespace();
    }
    if (unshare(CLONE_NEWNET) != 0) {
        fail("these tests need network namespaces: unshare");
    }
    handle_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (handle_ < 0) {
        fail("/proc/thread-self/ns/net");
    }
}

NetNamespace::~NetNamespace() {
    close(handle_);
}

void NetNamespace::enter() const {
    if (setns(handle_, CLONE_NEWNET) != 0) {
        fail("setns");
    }
}

std::string NetNamespace::path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(handle_);
}

LoopbackNetwork::LoopbackNetwork() {
    ip("link set lo up");
    ip("route add 231.232.233.235/32 dev lo");
}

void ip(const std::string& arguments) {
    const std::string command = "ip " + arguments;
    if (std::system(command.c_str()) != 0) {
        fail(command.c_str());
    }
}
