#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vxweb {

/// The web addresses at which other computers reach a port of this one: for each of its IPv4 and
/// global IPv6 addresses, `http` or `https` with an address and the port. Where `listen`, without
/// brackets, is one address, that one. Without a network the loopback interface's. Never empty.
std::vector<std::string> webAddresses(const std::string& listen, std::uint16_t port, bool tls);

}  // namespace vxweb
