// Looks names up in a file of the system tests, written as /etc/hosts is, before the system does.
// Loaded with LD_PRELOAD; the variable VELANTRIX_HOSTS names the file.

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <netdb.h>
#include <string>

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    const auto original =
        reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    const char* const path = std::getenv("VELANTRIX_HOSTS");
    std::ifstream hosts(path != nullptr ? path : "");
    for (std::string address, name; node != nullptr && hosts >> address >> name;) {
        if (name == node) {
            return original(address.c_str(), service, hints, result);
        }
    }
    return original(node, service, hints, result);
}
