#include <arpa/inet.h>
#include <cassert>
#include <cstdio>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/console.h"
#include "app/base/start_values.h"
#include "common/thread_check.h"

namespace {

constexpr std::size_t RESULT_ROOM = 256;
constexpr std::size_t ADDRESS_ROOM = 64;
constexpr unsigned LOOPBACK_NET = 127;

using InterfaceList = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

InterfaceList listInterfaces() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        consolePerror("getifaddrs");
        first = nullptr;
    }
    return {first, freeifaddrs};
}

/// Writes the entry's address to `text` when clients could use it.
bool readUsableAddress(const ifaddrs& entry, char (&text)[ADDRESS_ROOM]) {
    if (entry.ifa_addr == nullptr || (entry.ifa_flags & IFF_UP) == 0 ||
        entry.ifa_addr->sa_family != AF_INET) {
        return false;
    }
    const auto& address = *reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
    if (inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr) {
        consolePrintf("%s: inet_ntop failed!\n", entry.ifa_name);
        return false;
    }
    return ntohl(address.sin_addr.s_addr) >> 24 != LOOPBACK_NET;
}

/// Copies the first usable address to `result`; prints all when `print` is set.
bool findAddress(char (&result)[RESULT_ROOM], bool print) {
    const InterfaceList interfaces = listInterfaces();
    bool found = false;
    for (const ifaddrs* entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
        char text[ADDRESS_ROOM];
        if (!readUsableAddress(*entry, text)) {
            continue;
        }
        if (!found) {
            std::snprintf(result, sizeof result, "%s", text);
        }
        if (print) {
            consolePrintf(found ? "Possible alternate IP address: %s\n"
                                : "This server's probable IPv4 address: %s\n",
                          text);
        }
        found = true;
    }
    return found;
}

}  // namespace

const char* VelantrixServerNoGUI::GetIPAddress() {
    assert(onMainThread());
    static char result[RESULT_ROOM];
    static bool everFound = false;

    const char* const chosen = getCmdBindAddr();
    if (chosen[0] != '\0') {
        std::snprintf(result, sizeof result, "%s", chosen);
        return result;
    }
    if (findAddress(result, !everFound)) {
        everFound = true;
        return result;
    }
    std::snprintf(result, sizeof result, "(Unknown)");
    if (!everFound) {
        consolePuts("Could not determine this server's IPv4 address");
    }
    return result;
}
