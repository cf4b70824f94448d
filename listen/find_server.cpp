#include "listen/find_server.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "listen/command_line.h"
#include "listen/network/discovery_client.h"
#include "listen/network/receiver.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

/// Other servers that answer this soon after the first one are told of.
constexpr std::chrono::milliseconds GRACE{300};
/// A search for a server that was there before does not hold up the attempts to reach it.
constexpr std::chrono::milliseconds SHORT_LIMIT{1000};

/// A server's discovery port is one above the port that its environment chose, if it did.
DiscoverySearch makeSearch(const Options& options) {
    DiscoverySearch search;
    search.group = wire::DISCOVERY_GROUP;
    search.ports = {wire::DEFAULT_DISCOVERY_PORT};
    // The highest port has none above it.
    if (options.portChosen && options.port < 65535 &&
        options.port + 1 != wire::DEFAULT_DISCOVERY_PORT) {
        search.ports.push_back(static_cast<std::uint16_t>(options.port + 1));
    }
    return search;
}

void print(std::FILE* target, const DiscoveryResult& result) {
    for (const FoundServer& server : result.servers) {
        std::fprintf(target, "%s\t%.1f ms\n", server.address.c_str(), server.answerMs);
    }
    std::fflush(target);
}

bool complainWhenNone(const DiscoveryResult& result) {
    if (!result.error.empty()) {
        std::fprintf(stderr, "velantrix-listen: cannot look for servers: %s\n",
                     result.error.c_str());
    } else if (result.servers.empty()) {
        std::fputs("velantrix-listen: no server has answered\n", stderr);
    }
    return result.servers.empty();
}

}  // namespace

int listServers(const Options& options) {
    const DiscoveryResult result = discoverServers(makeSearch(options));
    print(stdout, result);
    return complainWhenNone(result) ? STATUS_FAILURE : STATUS_OK;
}

bool findServer(Options& options) {
    DiscoverySearch search = makeSearch(options);
    search.grace = GRACE;
    const DiscoveryResult result = discoverServers(search);
    if (complainWhenNone(result)) {
        return false;
    }
    if (result.servers.size() > 1 && !options.quiet) {
        std::fputs("velantrix-listen: several servers have answered, taking the first\n", stderr);
        print(stderr, result);
    }
    options.host = result.servers.front().address;
    options.found = true;
    for (std::size_t i = 1; i < result.servers.size(); ++i) {
        options.others.push_back(result.servers[i].address);
    }
    return true;
}

std::string locateAgain(const Options& options, const std::string& address) {
    if (!options.found) {
        return lookUpAddress(options.host);
    }
    DiscoverySearch search = makeSearch(options);
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
    return !same.empty() ? same : find([&options](const FoundServer& server) {
        return std::count(options.others.begin(), options.others.end(), server.address) == 0;
    });
}

}  // namespace vxlisten
