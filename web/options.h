#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "listen/find_server.h"
#include "web/streams/icecast_target.h"

namespace vxweb {

/// Where to accept connections.
struct ListenAddress {
    std::string address = "::";  ///< IPv4 or IPv6, without brackets; "::" includes IPv4.
    std::uint16_t port = 59080;  ///< 0: any free one.
};

/// Everything that the command line chooses.
struct Options {
    vxlisten::ServerChoice server;
    ListenAddress listen;
    std::string title;  ///< Printable UTF-8, at most 255 bytes.
    std::string passwordFile;
    std::string certificate;
    std::string key;
    std::vector<std::string> hostNames;  ///< Further host names of this computer.
    std::size_t maxListeners = 500;
    std::vector<IcecastTarget> icecast;
};

}  // namespace vxweb
