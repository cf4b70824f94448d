#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "listen/network/discovery_client.h"
#include "stream/wire_format.h"

namespace vxlisten {

/// Which server to listen to.
struct ServerChoice {
    std::string host;  ///< Name or dotted IPv4 address; empty: find a server.
    std::uint16_t port = wire::DEFAULT_SERVER_PORT;
    bool portChosen = false;          ///< The user gave the port.
    bool found = false;               ///< The user gave no server: `host` is one that responded.
    std::vector<std::string> others;  ///< Addresses of the other servers that responded then.
};

/// Every server that responds within three seconds. Blocks. Thread: any.
DiscoveryResult listServers(const ServerChoice& choice);

/// Looks for a server and stores the address of the first that responds as the host of `choice`,
/// and those of the others. Returns all. Blocks for up to three seconds. Thread: any.
DiscoveryResult findServer(ServerChoice& choice);

/// The present address of a server whose connection was lost; empty when unknown. `address` is the
/// old one. A name is looked up again. A server that was found by a search is searched for again:
/// the result is the same address if it responds, else the first server that was not there at the
/// start. May wait for a second, or as long as the name service does. Thread: any.
std::string locateAgain(const ServerChoice& choice, const std::string& address);

}  // namespace vxlisten
