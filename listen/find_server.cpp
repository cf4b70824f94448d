#include "listen/find_server.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "listen/network/receiver.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

/// How long to wait for other servers after the first response.
constexpr std::chrono::milliseconds GRACE{300};
/// A search for a lost server must not delay the attempts to reach it.
constexpr std::chrono::milliseconds SHORT_LIMIT{1000};

/// A server's discovery port is one above a port chosen by its environment.
DiscoverySearch makeSearch(const ServerChoice& choice) {
    DiscoverySearch search;
    search.ports = {wire::DEFAULT_DISCOVERY_PORT};
    // The highest port has none above it.
    if (choice.portChosen && choice.port < 65535 &&
        choice.port + 1 != wire::DEFAULT_DISCOVERY_PORT) {
        search.ports.push_back(static_cast<std::uint16_t>(choice.port + 1));
    }
    return search;
}

}  // namespace

DiscoveryResult listServers(const ServerChoice& choice) {
    return discoverServers(makeSearch(choice));
}

DiscoveryResult findServer(ServerChoice& choice) {
    DiscoverySearch search = makeSearch(choice);
    search.grace = GRACE;
    DiscoveryResult result = discoverServers(search);
    for (const FoundServer& server : result.servers) {
        if (choice.found) {
            choice.others.push_back(server.address);
        } else {
            choice.host = server.address;
            choice.found = true;
        }
    }
    return result;
}

std::string locateAgain(const ServerChoice& choice, const std::string& address) {
    if (!choice.found) {
        return lookUpAddress(choice.host);
    }
    DiscoverySearch search = makeSearch(choice);
    search.limit = SHORT_LIMIT;
    search.grace = GRACE;
    search.wanted = address;
    const std::vector<FoundServer> servers = discoverServers(search).servers;
    const auto find = [&servers](const auto& fits) {
        const auto found = std::find_if(servers.begin(), servers.end(), fits);
        return found != servers.end() ? found->address : std::string();
    };
    const std::string same =
        find([&address](const FoundServer& server) { return server.address == address; });
    return !same.empty() ? same : find([&choice](const FoundServer& server) {
        return std::count(choice.others.begin(), choice.others.end(), server.address) == 0;
    });
}

}  // namespace vxlisten
