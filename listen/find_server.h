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
    bool portChosen = false;          ///< The user named the port.
    bool found = false;               ///< The user named no server: `host` is one that answered.
    std::vector<std::string> others;  ///< Addresses of the other servers that answered then.
};

/// Every server that answers within three seconds. Blocks. Thread: any.
DiscoveryResult listServers(const ServerChoice& choice);

/// Looks for a server and enters the address of the first that answers as the host of `choice`,
/// and those of the others. Returns all that answered. Blocks for up to three seconds. Thread: any.
DiscoveryResult findServer(ServerChoice& choice);

/// Where the server of a lost session is now; empty when it is not known better than before.
/// `address` is where it was. A name is looked up anew. A server that was found by searching is
/// searched for again: at the same address if it answers there, else the first server that did not
/// stand beside it from the start. May wait for a second, or as long as the name service does.
/// Thread: any.
std::string locateAgain(const ServerChoice& choice, const std::string& address);

}  // namespace vxlisten
