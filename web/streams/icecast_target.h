#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vxweb {

/// An Icecast server's address, stream and login.
struct IcecastTarget {
    std::string host;  ///< A name or an address, IPv6 without brackets.
    std::uint16_t port = 0;
    std::string mount;  ///< "/velantrix.ogg".
    std::string user;
    std::string password;
    bool tls = false;

    /// "HOST:PORT/MOUNT" for messages, without the user's name.
    [[nodiscard]] std::string name() const;
};

/// Reads `http://[USER[:PASSWORD]@]HOST[:PORT]/MOUNT`, or the same with `https`. Without a user
/// "source", without a port 8000, without a password `password`, which may be null or empty. On
/// failure a message, without a line end, that contains neither. Pure.
std::variant<IcecastTarget, std::string> parseIcecastUrl(const std::string& url,
                                                         const char* password);

/// The user's name and password in an argument, also in one that is wrong; empty when there are
/// none. Pure.
std::string_view loginOf(std::string_view argument);

/// Copies the program's arguments, without its name, and overwrites user names and passwords of web
/// addresses in the originals, which other users see in the process list.
std::vector<std::string> takeArguments(int count, char** arguments);

}  // namespace vxweb
