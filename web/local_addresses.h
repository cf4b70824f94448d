#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vxweb {

/// The web addresses of a port of this computer for other computers: one for each IPv4 and global
/// IPv6 address, or for `listen` (without brackets) if that is a specific address. Without a
/// network, the loopback interface's. Never empty.
std::vector<std::string> webAddresses(const std::string& listen, std::uint16_t port, bool tls);

}  // namespace vxweb
