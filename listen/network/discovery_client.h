#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace vxlisten {

/// A server that responded.
struct FoundServer {
    std::string address;    ///< Dotted IPv4.
    double responseMs = 0;  ///< Milliseconds from the latest query to its first response.
};

/// How to look for servers.
struct DiscoverySearch {
    std::vector<std::uint16_t> ports;  ///< Ports that the queries go to.
    std::chrono::milliseconds limit{3000};
    /// How long to wait for more responses after the first one. Not above `limit`.
    std::chrono::milliseconds grace{3000};
    std::string wanted;  ///< The search ends as soon as the server at this address responds.
};

/// The result of a search: servers in the order of their responses, each once. `error` is empty
/// unless no query could be sent.
struct DiscoveryResult {
    std::vector<FoundServer> servers;
    std::string error;
};

/// Asks for servers every half second until the time is over or a stop is requested. Blocks.
DiscoveryResult discoverServers(const DiscoverySearch& search);

}  // namespace vxlisten
